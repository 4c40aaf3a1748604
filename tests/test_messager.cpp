// Messager against a private redis-server, no server, a server killed by pid, a scripted peer.
#include "bmessager.h"
#include "breport.h"
#include "bshmem.h"
#include "child.h"
#include "fake_redis.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

using namespace bmsg_test;
using M = bMSG::Messager;
using V = std::vector<int>;

static char buf[16], key[16];  // scratch

// Each operation with its code when its command gets no reply; subscribe last.
const std::vector<std::pair<int, std::function<int(M&)>>> every_op = {
    {-7, [](M& m) { return m.set("k", "v"); }}, {-7, [](M& m) { return m.set("k", 1); }}, {-7, [](M& m) { return m.set("k", 1.5f); }},
    {-7, [](M& m) { return m.set("k", 1UL); }}, {-8, [](M& m) { return m.get("k", buf, 16); }}, {-8, [](M& m) { int v; return m.get("k", &v); }},
    {-8, [](M& m) { float v; return m.get("k", &v); }}, {-8, [](M& m) { unsigned long v; return m.get("k", &v); }},
    {-2, [](M& m) { return m.list_send("L", "%s", "x"); }}, {-2, [](M& m) { return m.device_cmd_send("x"); }}, {-2, [](M& m) { return m.bio_cmd_send("x"); }},
    {-2, [](M& m) { return m.bio_info_send("x"); }}, {-2, [](M& m) { return m.bio_resp_send("x"); }}, {-3, [](M& m) { return m.list_size("L"); }},
    {-3, [](M& m) { return m.list_recv("L", buf, 16, 1, key, 16); }}, {-3, [](M& m) { return m.list_recv("L", buf, 16, 0, key, 16); }},
    {-3, [](M& m) { return m.list_clear("L"); }}, {-2, [](M& m) { return m.publish("C", "%s", "x"); }}, {-2, [](M& m) { return m.system_publish("x"); }},
    {-3, [](M& m) { return m.subscribe("C", {}); }}};

TEST(Connect, EveryCallRetriesAndReportsEachFailure)
{
    const uint16_t port = free_port();
    std::vector<int> codes(every_op.size(), 0);
    Captured c = run_captured([&] {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < codes.size(); ++i)
            threads.emplace_back([&, i] {
                M m("127.0.0.1", port, 2);
                codes[i] = m.redis_context() ? 1 : every_op[i].second(m);
            });
        for (std::thread& t : threads)
            t.join();
        return 0;
    });
    EXPECT_EQ(codes, std::vector<int>(codes.size(), -1));
    // The report's form: "bMSG ERROR func[line]:" on stderr, the message and a line break on stdout.
    const std::string reports = std::to_string(4 * codes.size());  // two attempts each in constructor and call
    const std::string line = "Connection refused: address\\[127.0.0.1\\] port\\[" + std::to_string(port) + "\\]\n";
    EXPECT_TRUE(std::regex_match(c.err, std::regex("(bMSG ERROR connect\\[[0-9]+\\]:){" + reports + "}"))) << c.err;
    EXPECT_TRUE(std::regex_match(c.out, std::regex("(" + line + "){" + reports + "}"))) << c.out;
    // Through the journal's handler: one line each on stderr, with the level when stderr is the
    // journal's stream (not when the journal has another one).
    for (const std::string level : {"", "<3>"}) {
        Captured h = run_captured([&] {
            struct stat st;
            fstat(2, &st);
            setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + level.empty())).c_str(), 1);
            bMSG::set_report_handler(bMSG::report_to_journal);
            std::thread t([&] { M m("127.0.0.1", port, 2); });
            M m("127.0.0.1", port, 2);
            t.join();
            bMSG::set_report_handler({});
            return unsetenv("JOURNAL_STREAM");
        });
        EXPECT_TRUE(h.out.empty() && std::regex_match(h.err, std::regex("(" + level + "bMSG ERROR connect\\[[0-9]+\\]: " + line + "){4}"))) << h.out << h.err;
    }
}

TEST(Connect, DefaultAddressEveryValueTypeEachReaderItsOwnReplyTypeAndWaitingForEver)
{
    RedisServer server;
    M m(nullptr, server.port(), 1), by_empty("", server.port(), 1);
    redisContext* held = m.redis_context();
    EXPECT_EQ((m.connect(), m.redis_context()), held);
    EXPECT_EQ(m.set("s", "two words") + m.set("i", -3) + m.set("f", 2.5f) + m.set("u", 18446744073709551615UL) +
                  by_empty.set("k", "v"), 0);
    EXPECT_EQ(redis_raw(server, "MGET s i f u k"), "two words\n-3\n2.500000\n18446744073709551615\nv");
    redis_raw(server, "MSET n 42 long 12345678"), redis_raw(server, "LPUSH list x");
    // key, then what each reader holds after it (before: 7, 9, 8, "").
    const struct { const char* key; int i; unsigned long u; float f; const char* text; } rows[] = {
        {"n", 7, 9, 42, "42"}, {"long", 7, 9, 12345678, ""}, {"list", 7, 9, 8, ""}, {"none", 7, 9, 8, ""}};
    for (const auto& row : rows) {
        struct { int i = 7; unsigned long u = 9; float f = 8; char text[9] = {}; } o;
        EXPECT_EQ(m.get(row.key, &o.i) + m.get(row.key, &o.u) + m.get(row.key, &o.f) + m.get(row.key, o.text, 8), 0);
        EXPECT_EQ(std::make_tuple(o.i, o.u, o.f, std::string(o.text)),
                  std::make_tuple(row.i, row.u, row.f, std::string(row.text))) << row.key;
    }

    server.stop();
    int rc = 1;  // the server is restarted by the main thread, which its process dies with
    Captured c = run_captured([&] {
        std::thread waiter([&] { rc = M(nullptr, server.port(), 0).set("k", "up"); });
        usleep(1500000);
        server.restart();
        waiter.join();
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_NE(c.err, "");
}

TEST(Lists, ReceiveCopiesWhatFitsNamesTheKeyAndAlwaysTakesTheElement)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    const std::string none(16, '#'), dc = "DEVICE_CMD";
    std::string out(32, '#');
    char name[17] = {};
    // value, buffer size, timeout, key size, result, value copied, key written
    const struct { std::string value; int size, timeout, key_size, rc; bool copied; std::string key; } rows[] = {
        {"1234567", 8, 0, 16, 7, true, dc}, {"1234567", 8, 1, 0, 7, true, none}, {"12345678", 8, 0, 16, -5, false, none},
        {"12345678", 8, 1, 16, -5, false, none}, {"12345678", -1, 1, 16, 8, true, dc},
        {std::string("a\0b", 3), 4, 1, 11, 3, true, dc}, {"go", 16, 1, 10, -5, true, "DEVICE_CM"},
        {"go", 16, 0, 10, -5, true, "DEVICE_CM"}, {"go", 16, 0, -4, 2, true, none}, {"", 1, 1, 16, 0, false, dc}};
    for (const auto& row : rows) {
        std::fill(out.begin(), out.end(), '#');
        memset(name, '#', 16);
        ASSERT_EQ(m.list_send(dc.c_str(), "%b", row.value.data(), row.value.size()), 0);
        EXPECT_EQ(m.list_recv(dc.c_str(), out.data(), row.size, row.timeout, name, row.key_size), row.rc)
            << row.value.size() << " bytes into " << row.size << ", timeout " << row.timeout;
        const size_t n = row.value.size();
        EXPECT_EQ(out.substr(0, n + 1), row.copied ? row.value + "#" : std::string(n + 1, '#'));
        EXPECT_EQ(name, row.key);
        EXPECT_EQ(m.list_size(dc.c_str()), 0);
    }
    // Nothing queued, or a key of another type: 0 and nothing copied.
    redis_raw(server, "SET str x");
    EXPECT_EQ((V{m.list_recv("none", buf, 16, 0, key, 16), m.list_recv("str", buf, 16, 0, key, 16),
                 m.list_recv("str", buf, 16, 1, key, 16)}), (V{0, 0, 0}));

    // Literal text splits at blanks; "%%" is a percent sign.
    EXPECT_EQ((V{m.list_send("Q", "x y z"), m.list_send("Q", "100%%"), m.list_size("Q")}), (V{0, 0, 4}));
    EXPECT_EQ(redis_raw(server, "LRANGE Q 0 -1"), "100%\nz\ny\nx");
    EXPECT_EQ((V{m.list_recv("Q", buf, 16, 0, key, 16), buf[0], m.list_recv("Q", buf, 16, 1, key, 16), buf[0]}), (V{1, 'x', 1, 'y'}));
    EXPECT_EQ((V{m.list_clear("Q"), m.list_clear("Q")}), (V{1, 0}));
    EXPECT_EQ(m.device_cmd_send("d") + m.bio_cmd_send("c") + m.bio_info_send("i") + m.bio_resp_send("r"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP DEVICE_CMD") + redis_raw(server, "RPOP BIO_CMD") +
                  redis_raw(server, "RPOP MAIN_BIOMETRIC_INFO") + redis_raw(server, "RPOP BIOMETRIC_RESP"), "dcir");
}

// address, port, producer number or "c", count: pushes "<number>:<sequence>", or prints each pop until "STOP".
BMSG_ROLE(load)
{
    M m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    for (int seq = 0; args.at(2) != "c" && seq < std::stoi(args.at(3)); ++seq)
        if (m.list_send("LOAD", "%s:%d", args[2].c_str(), seq) != 0)
            return 1;
    char msg[64];
    for (int n; args[2] == "c"; printf("%s\n", msg))
        if ((n = m.list_recv("LOAD", msg, sizeof msg - 1, 30, nullptr, 0)) <= 0 || (msg[n] = 0, !strcmp(msg, "STOP")))
            return n <= 0;
    return 0;
}

TEST(Lists, ProducersAndConsumersOverBothTransportsLoseAndDoubleNothingInProducerOrder)
{
    const int count = 2000, n = 3;
    RedisServer server;
    std::vector<Child> consumers, producers;
    for (int i = 0; i < n; ++i) {
        const std::string address = i % 2 ? server.socket() : "127.0.0.1", port = std::to_string(server.port());
        consumers.push_back(spawn_role("load", {address, port, "c", "0"}));
        producers.push_back(spawn_role("load", {address, port, std::to_string(i), std::to_string(count)}));
    }
    for (Child& c : producers)
        EXPECT_EQ(c.wait(), 0) << c.err();
    redis_raw(server, "LPUSH LOAD STOP STOP STOP");  // one for each consumer, behind every message
    std::vector<int> seen(n * count, 0);
    int disorder = 0, p, seq;
    char colon = 0;
    for (Child& c : consumers) {
        EXPECT_EQ(c.wait(), 0) << c.err();
        std::istringstream in(c.out());
        std::vector<int> last(n, -1);  // one consumer sees each producer's order
        for (; in >> p >> colon >> seq && p >= 0 && p < n && seq >= 0 && seq < count; last[p] = seq)
            disorder += seq <= last[p] || ++seen[p * count + seq] > 1;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), n * count) << "lost or doubled";
    EXPECT_EQ(disorder, 0);
}

TEST(PublishSubscribe, DeliversInOrderUntilTheServerGoes)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    std::vector<std::string> got;
    std::atomic<int> delivered{0};
    std::thread sub([&] {
        M(nullptr, server.port(), 1).subscribe("SYSTEM_STATUS", [&](const char* ch, const char* p, size_t n, void* u) {
            got.push_back(std::string(ch) + "=" + std::string(p, n) + (p[n] || u ? "!" : "")), ++delivered;
        });
    });
    ASSERT_TRUE(wait_subscribers(server, "SYSTEM_STATUS", 1));
    EXPECT_EQ((V{m.system_publish("%s", "ready now"), m.publish("SYSTEM_STATUS", "%b", "z\0z", size_t{3}),
                 m.publish("SYSTEM_STATUS", "a b c"), m.publish("nobody", "x")}),
              (V{1, 1, 0, 0})) << "literal blanks make a command the server refuses";
    wait_until([&] { return delivered == 2; });
    server.stop();
    sub.join();
    EXPECT_EQ(got, (std::vector<std::string>{"SYSTEM_STATUS=ready now", std::string("SYSTEM_STATUS=z\0z", 17)}));
}

TEST(Messager, ConnectionsStayOutOfChildProcessesAndOwnedSegmentsGoWithIt)
{
    RedisServer server;
    const std::string segment = "/" + unique("bmsg_test_owned");
    auto m = std::make_unique<M>(nullptr, server.port(), 1);
    m->segments["a"] = new bMSG::SharedMemory(segment, 16, true);
    freeReplyObject(redisCommand(m->redis_context(), "SUBSCRIBE C"));
    Child child = spawn_native("sleep", {"60"});
    ASSERT_TRUE(wait_subscribers(server, "C", 1));
    m.reset();
    EXPECT_TRUE(wait_subscribers(server, "C", 0)) << "the child holds the connection";
    EXPECT_EQ(bMSG::SharedMemory(segment, 16, false).addr, nullptr);
}

TEST(ServerKilled, BlockedPopSubscriberAndCommandLoopGiveTheirCodesThenANewMessagerWorks)
{
    for (bool unix_socket : {true, false}) {
        RedisServer server;
        const char* address = unix_socket ? server.socket().c_str() : "127.0.0.1";
        std::atomic<int> pop = 1, sub = 1;
        std::string faults;
        M idle(address, server.port(), 1);  // its first write after the kill must not raise SIGPIPE
        Captured c = run_captured([&] {
            std::thread popper([&] { pop = M(address, server.port(), 1).list_recv("Q", buf, 16, 30, key, 16); });
            std::thread subscriber([&] { sub = M(address, server.port(), 1).subscribe("S", [](auto...) {}); });
            // Once one fails each later one gives its code; the connection is kept.
            std::thread loop([&] {
                M m(address, server.port(), 1);
                for (int i = 0, failed_at = -1; failed_at < 0 || i < failed_at + 2; ++i)
                    for (size_t op = 0; op + 1 < every_op.size(); ++op) {
                        const int rc = every_op[op].second(m);
                        failed_at = failed_at < 0 && rc < 0 ? i : failed_at;
                        if (failed_at >= 0 && rc != every_op[op].first)
                            faults += std::to_string(op) + "=" + std::to_string(rc) + " ";
                    }
                faults += m.subscribe("C", {}) == -3 && m.redis_context() ? "" : "subscribe";
            });
            const bool busy = wait_until([&] {
                return redis_raw(server, "INFO clients").find("blocked_clients:1") != std::string::npos &&
                       redis_raw(server, "PUBSUB NUMSUB S") == "S\n1" && atoi(redis_raw(server, "LLEN BIO_CMD").c_str()) > 200;
            });
            server.stop(), popper.join(), subscriber.join(), loop.join();
            return busy;
        });
        EXPECT_TRUE(c.status);
        EXPECT_EQ((V{pop, sub, idle.set("k", "v")}), (V{-3, 0, -7}));
        EXPECT_EQ(faults, "");
        EXPECT_NE(c.out, "") << "publish reports its failure";
        server.restart();
        M fresh(address, server.port(), 1);
        EXPECT_EQ((V{fresh.list_send("Q", "%s", "again"), fresh.list_recv("Q", buf, 16, 1, nullptr, 0)}), (V{0, 5}));
    }
}

TEST(Template, ExactlyFullFitsOneMoreCharacterIsRefusedUnsent)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    // The fixed text before the format: verb, blank, name, blank.
    const std::vector<std::pair<size_t, std::function<int(const char*)>>> ops = {
        {8, [&](const char* f) { return m.list_send("K", f); }}, {22, [&](const char* f) { return m.system_publish(f); }}};
    for (const auto& [prefix, op] : ops) {
        const std::string full(1023 - prefix, 'f');
        EXPECT_EQ((V{op(full.c_str()), op((full + "f").c_str())}), (V{0, -2})) << prefix;
    }
    EXPECT_EQ(redis_raw(server, "LLEN K"), "1");

    // A '%' in a name is doubled, so it counts twice and stays literal.
    const std::string percents(507, '%');
    EXPECT_EQ(m.list_send(percents.c_str(), "%s", "v") + m.list_send("odd%s%n%key", "%s", "v"), 0);
    EXPECT_EQ(m.list_send((percents + "%").c_str(), "%s", "v") + m.publish((percents + "%").c_str(), "%s", "v"), -4);
    EXPECT_EQ(redis_raw(server, "RPOP %s", percents.c_str()) + redis_raw(server, "RPOP %s", "odd%s%n%key"), "vv");
    EXPECT_EQ(m.list_send(nullptr, "%s", "v") + m.list_send("K", nullptr) + m.publish(nullptr, "v"), -6);

    // A format hiredis cannot read fails this and, as in hiredis, every later command.
    EXPECT_EQ((V{m.list_send("K", "%q"), m.set("k", "v")}), (V{-2, -7}));
}

// Replies a real server never sends, where they could crash the caller: subscribe hands on only
// message arrays of strings, list_recv only a pair of strings (a key that is not a string would
// reach snprintf as a null pointer).
TEST(ScriptedPeer, SubscribeAndListRecvTakeOnlyArraysOfStrings)
{
    const std::string replies = std::string("*3\r\n$9\r\nsubscribe\r\n$1\r\nC\r\n:1\r\n") +
        "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\none\r\n" + "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n:2\r\n" +
        "*3\r\n:7\r\n$1\r\nC\r\n$1\r\nx\r\n" + "*2\r\n$7\r\nmessage\r\n$1\r\nC\r\n" + "*-1\r\n+OK\r\n" +
        "*3\r\n$7\r\nmessage\r\n$5\r\nOTHER\r\n$3\r\ntwo\r\n" + "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\nthr";
    FakeRedis peer;
    peer.reply(replies);
    std::vector<std::string> got;
    EXPECT_EQ(M(peer.socket().c_str(), 0, 1).subscribe("C", [&](const char* ch, const char* p, size_t n, void*) {
        got.push_back(std::string(ch) + "=" + std::string(p, n));
    }), 0);
    EXPECT_EQ(got, (std::vector<std::string>{"C=one", "C=two"}));
    for (const char* reply : {"*2\r\n:1\r\n$1\r\nv\r\n", "*2\r\n$1\r\nL\r\n*0\r\n"}) {
        peer.reply(reply);
        EXPECT_EQ(M(peer.socket().c_str(), 0, 1).list_recv("L", buf, 8, 1, key, sizeof key), -6) << reply;
    }
}

#if HIREDIS_MAJOR >= 1  // 0.14 has no bound on declared lengths
TEST(ScriptedPeer, HugeDeclaredArrayIsRefusedBeforeAnyAllocation)
{
    // An unbounded reader would reserve 16 GiB; a bounded one refuses at once.
    FakeRedis peer;
    peer.reply("*2147483647\r\n");
    M m(peer.socket().c_str(), 0, 1);
    EXPECT_EQ(m.list_recv("L", buf, 8, 1, nullptr, 0), -3);
    EXPECT_EQ(m.redis_context()->err, REDIS_ERR_PROTOCOL);
}
#endif
