// Messager against a private redis-server, no server, a server killed by pid,
// hostile names and formats, and replies only a scripted peer sends.
#include "bimage.h"
#include "bmessager.h"
#include "bshmem.h"
#include "fake_redis.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

using namespace bmsg_test;
using M = bMSG::Messager;
using V = std::vector<int>;

static int count_of(const std::string& text, const std::string& what, size_t from = 0)
{
    const size_t at = text.find(what, from);
    return at == std::string::npos ? 0 : 1 + count_of(text, what, at + 1);
}

static char buf[16], key[16];  // scratch

// `call` on a fresh Messager whose first command the peer answers with `reply`.
static int against(FakeRedis& peer, const std::string& reply, const std::function<int(M&)>& call)
{
    peer.answer(reply);
    int rc = call(*std::make_unique<M>(peer.socket().c_str(), 0, 1));
    peer.wait_idle();
    return rc;
}

// Each operation with its code when its command gets no reply; subscribe last.
const std::vector<std::pair<int, std::function<int(M&)>>> every_op = {
    {-7, [](M& m) { return m.set("k", "v"); }}, {-7, [](M& m) { return m.set("k", 1); }},
    {-7, [](M& m) { return m.set("k", 1.5f); }}, {-7, [](M& m) { return m.set("k", 1UL); }},
    {-8, [](M& m) { return m.get("k", buf, 16); }}, {-8, [](M& m) { int v; return m.get("k", &v); }},
    {-8, [](M& m) { float v; return m.get("k", &v); }}, {-8, [](M& m) { unsigned long v; return m.get("k", &v); }},
    {-2, [](M& m) { return m.list_send("L", "%s", "x"); }}, {-2, [](M& m) { return m.device_cmd_send("x"); }},
    {-2, [](M& m) { return m.bio_cmd_send("x"); }}, {-2, [](M& m) { return m.bio_info_send("x"); }},
    {-2, [](M& m) { return m.bio_resp_send("x"); }}, {-3, [](M& m) { return m.list_recv("L", buf, 16, 1, key, 16); }},
    {-3, [](M& m) { return m.list_recv("L", buf, 16, 0, key, 16); }}, {-3, [](M& m) { return m.list_size("L"); }},
    {-3, [](M& m) { return m.list_clear("L"); }}, {-2, [](M& m) { return m.publish("C", "%s", "x"); }},
    {-2, [](M& m) { return m.system_publish("x"); }}, {-3, [](M& m) { return m.subscribe("C", {}); }},
};

TEST(Connect, EveryCallRetriesReportingEachFailureAndPausingASecond)
{
    const uint16_t port = free_port();
    std::vector<int> codes(every_op.size(), 0);
    const auto start = std::chrono::steady_clock::now();
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
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 3.5) << "two attempts in the constructor, two in the call";
    EXPECT_EQ(codes, std::vector<int>(codes.size(), -1));
    const int reports = 4 * static_cast<int>(codes.size());
    EXPECT_EQ(count_of(c.err, "bMSG ERROR connect["), reports);
    EXPECT_EQ(c.err.find('\n'), std::string::npos);
    EXPECT_EQ(count_of(c.out, "Connection refused: address[127.0.0.1] port[" + std::to_string(port) + "]"), reports);
    EXPECT_EQ(std::count(c.out.begin(), c.out.end(), '\n'), reports);
}

TEST(Connect, DefaultAddressSettingsAndWaitingForEver)
{
    RedisServer server;
    M m(nullptr, server.port(), 1), by_empty("", server.port(), 1);
    redisContext* held = m.redis_context();
    EXPECT_EQ((m.connect(), m.redis_context()), held);

    EXPECT_EQ(m.set("s", "two words") + m.set("i", -3) + m.set("f", 2.5f) + m.set("u", 18446744073709551615UL) +
                  by_empty.set("k", "v"), 0);
    EXPECT_EQ(redis_raw(server, "MGET s i f u"), "two words\n-3\n2.500000\n18446744073709551615");

    server.stop();
    std::thread starter([&] { std::this_thread::sleep_for(std::chrono::milliseconds(1500)), server.restart(); });
    Captured c = run_captured([&] { return M(nullptr, server.port(), 0).set("k", "up"); });
    starter.join();
    EXPECT_EQ(c.status, 0);
    EXPECT_GE(count_of(c.err, "bMSG ERROR connect["), 1);
}

TEST(Lists, ReceiveCopiesWhatFitsNamesTheKeyAndAlwaysTakesTheElement)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    const std::string mib(1 << 20, 'v'), none(16, '#'), dc = "DEVICE_CMD";
    std::string out(mib.size() + 2, '#');
    char name[17] = {};
    // value, buffer size, timeout, key size, result, value copied, key written
    const struct { std::string value; int size, timeout, key_size, rc; bool copied; std::string key; } rows[] = {
        {"a b", 16, 0, 16, 3, true, dc}, {"a b", 16, 1, 16, 3, true, dc}, {"1234567", 8, 0, 0, 7, true, none},
        {"1234567", 8, 1, 0, 7, true, none}, {"12345678", 8, 0, 16, -5, false, none},
        {"12345678", 8, 1, 16, -5, false, none}, {"12345678", -1, 1, 16, 8, true, dc},
        {std::string("a\0b", 3), 4, 1, 11, 3, true, dc}, {"go", 16, 1, 10, -5, true, "DEVICE_CM"},
        {"go", 16, 0, 10, -5, true, "DEVICE_CM"}, {"go", 16, 1, 1, -5, true, ""}, {"go", 16, 0, -4, 2, true, none},
        {"", 0, 0, 16, -5, false, none}, {"", 1, 1, 16, 0, false, dc}, {mib, 1 << 20, 1, 16, -5, false, none},
        {mib, (1 << 20) + 1, 0, 16, 1 << 20, true, dc}};
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

    // Literal text splits at blanks; "%%" is a percent sign.
    EXPECT_EQ((V{m.list_send("Q", "x y z"), m.list_send("Q", "100%%"), m.list_size("Q")}), (V{0, 0, 4}));
    EXPECT_EQ(redis_raw(server, "LRANGE Q 0 -1"), "100%\nz\ny\nx");
    EXPECT_EQ((V{m.list_clear("Q"), m.list_clear("Q")}), (V{1, 0}));
    EXPECT_EQ(m.device_cmd_send("d") + m.bio_cmd_send("c") + m.bio_info_send("i") + m.bio_resp_send("r"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP DEVICE_CMD") + redis_raw(server, "RPOP BIO_CMD") +
                  redis_raw(server, "RPOP MAIN_BIOMETRIC_INFO") + redis_raw(server, "RPOP BIOMETRIC_RESP"), "dcir");
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
    const std::string segment = "/bmsg_test_owned_" + std::to_string(getpid());
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
    const std::string report = "publish error: reply is NULL\n";
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
            server.stop();
            for (std::thread* t : {&popper, &subscriber, &loop})
                t->join();
            return busy;
        });
        EXPECT_TRUE(c.status);
        EXPECT_EQ((V{pop, sub, idle.set("k", "v")}), (V{-3, 0, -7}));
        EXPECT_EQ(faults, "");
        const int reports = count_of(c.out, report);  // and nothing else
        EXPECT_EQ((V{reports >= 2, static_cast<int>(c.out.size()), count_of(c.err, "bMSG ERROR publish[")}),
                  (V{1, reports * static_cast<int>(report.size()), reports})) << c.out;
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
        {8, [&](const char* f) { return m.list_send("K", f); }}, {10, [&](const char* f) { return m.publish("C", f); }},
        {17, [&](const char* f) { return m.device_cmd_send(f); }}, {22, [&](const char* f) { return m.system_publish(f); }}};
    for (const auto& [prefix, op] : ops) {
        const std::string full(1023 - prefix, 'f');
        EXPECT_EQ((V{op(full.c_str()), op((full + "f").c_str())}), (V{0, -2})) << prefix;
    }
    EXPECT_EQ(redis_raw(server, "LLEN K") + redis_raw(server, "LLEN DEVICE_CMD"), "11");

    // A '%' in a name is doubled, so it counts twice and stays literal.
    const std::string percents(507, '%');
    EXPECT_EQ(m.list_send(percents.c_str(), "%s", "v") + m.list_send("odd%s%n%key", "%s", "v"), 0);
    EXPECT_EQ(m.list_send((percents + "%").c_str(), "%s", "v") + m.publish((percents + "%").c_str(), "%s", "v"), -4);
    EXPECT_EQ(redis_raw(server, "RPOP %s", percents.c_str()) + redis_raw(server, "RPOP %s", "odd%s%n%key"), "vv");
    EXPECT_EQ(m.list_send(nullptr, "%s", "v") + m.list_send("K", nullptr) + m.publish(nullptr, "v"), -6);

    // A format hiredis cannot read fails this and, as in hiredis, every later command.
    EXPECT_EQ((V{m.list_send("K", "%q"), m.set("k", "v")}), (V{-2, -7}));
}

TEST(ScriptedPeer, PopRepliesARealServerNeverSends)
{
    FakeRedis peer;
    const struct { const char* reply; int timeout; bool want_key; int rc; const char* value, *key; } rows[] = {
        {"*2\r\n:5\r\n$3\r\nabc\r\n", 5, true, -6, "abc", ""}, {"*2\r\n:5\r\n$3\r\nabc\r\n", 5, false, 3, "abc", ""},
        {"*2\r\n$1\r\nQ\r\n:7\r\n", 5, true, -6, "", ""}, {"*2\r\n$1\r\nQ\r\n*1\r\n$1\r\nx\r\n", 5, true, -6, "", ""},
        {"*2\r\n$1\r\nQ\r\n$16\r\n0123456789abcdef\r\n", 5, true, -5, "", ""},
        {"*2\r\n$5\r\nOTHER\r\n$1\r\nv\r\n", 5, true, 1, "v", "OTHER"}, {"$2\r\nhi\r\n", 5, true, 2, "hi", "Q"},
        {"*2\r\n$1\r\nQ\r\n$1\r\nv\r\n", 0, true, 1, "v", "Q"}, {"*1\r\n$1\r\nQ\r\n", 5, true, 0, "", ""},
        {"*3\r\n$1\r\nQ\r\n$1\r\nv\r\n$1\r\nw\r\n", 5, true, 0, "", ""}, {"*-1\r\n", 5, true, 0, "", ""},
        {"+OK\r\n", 5, true, 0, "", ""}, {"-ERR wrong type\r\n", 0, true, 0, "", ""}, {":9\r\n", 0, true, 0, "", ""},
        {"$-1\r\n", 0, true, 0, "", ""}, {"$10\r\nabc", 0, true, -3, "", ""}, {"", 0, true, -3, "", ""}};
    for (const auto& row : rows) {
        char buf[17] = {}, key[17] = {};
        EXPECT_EQ(against(peer, row.reply, [&](M& m) {
                      return m.list_recv("Q", buf, 16, row.timeout, row.want_key ? key : nullptr, 16);
                  }), row.rc) << row.reply;
        EXPECT_EQ(std::string(buf) + "," + key, std::string(row.value) + "," + row.key) << row.reply;
    }
    const auto commands = peer.take_commands();
    EXPECT_EQ(commands.front().at(0) + commands.front().at(2) + commands.back().at(0), "BRPOP5RPOP");
}

TEST(ScriptedPeer, GetTakesEachReaderItsOwnReplyType)
{
    FakeRedis peer;
    // reply, result, then what each reader holds after it (before: 7, 9, 8, "").
    const struct { const char* reply; int rc, i; unsigned long u; float f; const char* text; } rows[] = {
        {":42\r\n", 0, 42, 42, 8, ""}, {":4294967301\r\n", 0, 5, 4294967301UL, 8, ""},
        {":-1\r\n", 0, -1, 18446744073709551615UL, 8, ""}, {"$4\r\n2.5x\r\n", 0, 7, 9, 2.5f, "2.5x"},
        {"$7\r\n1234567\r\n", 0, 7, 9, 1234567, "1234567"}, {"$8\r\n12345678\r\n", 0, 7, 9, 12345678, ""},
        {"*1\r\n$1\r\nx\r\n", 0, 7, 9, 8, ""}, {"+OK\r\n", 0, 7, 9, 8, ""}, {"-ERR\r\n", 0, 7, 9, 8, ""},
        {"$-1\r\n", 0, 7, 9, 8, ""}, {"$3\r\nab", -8, 7, 9, 8, ""}, {"", -8, 7, 9, 8, ""}};
    for (const auto& row : rows) {
        struct { int i = 7; unsigned long u = 9; float f = 8; char text[9] = {}; } o;
        EXPECT_EQ(against(peer, row.reply, [&](M& m) { return m.get("k", &o.i); }) +
                      against(peer, row.reply, [&](M& m) { return m.get("k", &o.u); }) +
                      against(peer, row.reply, [&](M& m) { return m.get("k", &o.f); }) +
                      against(peer, row.reply, [&](M& m) { return m.get("k", o.text, 8); }), 4 * row.rc) << row.reply;
        EXPECT_EQ(std::make_tuple(o.i, o.u, o.f, std::string(o.text)),
                  std::make_tuple(row.i, row.u, row.f, std::string(row.text))) << row.reply;
    }
}

TEST(ScriptedPeer, PublishAndSubscribeRepliesOfEveryShape)
{
    Captured c = run_captured([] {
        FakeRedis peer;
        return against(peer, ":-3\r\n", [](M& m) { return m.publish("C", "%s", "x"); }) * 100 +
               against(peer, ":-3\r\n", [](M& m) { return m.system_publish("%s", "x"); }) * 10 +
               against(peer, "-ERR\r\n", [](M& m) { return m.publish("C", "%s", "x"); });
    });
    EXPECT_EQ(c.status, -330) << "a negative count is returned as it is";
    EXPECT_EQ(c.out, "publish error: \n") << "by the variadic form only";
    EXPECT_EQ(c.err.rfind("bMSG ERROR publish[", 0), 0u);

    // Only three-element "message" arrays of strings are handed on.
    const std::string replies = std::string("*3\r\n$9\r\nsubscribe\r\n$1\r\nC\r\n:1\r\n") +
        "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\none\r\n" + "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n:2\r\n" +
        "*3\r\n$7\r\nmessage\r\n:1\r\n$1\r\nz\r\n" + "*3\r\n:7\r\n$1\r\nC\r\n$1\r\nx\r\n" +
        "*3\r\n$7\r\nmassage\r\n$1\r\nC\r\n$1\r\nx\r\n" + "*2\r\n$7\r\nmessage\r\n$1\r\nC\r\n" +
        "*4\r\n$8\r\npmessage\r\n$1\r\n*\r\n$1\r\nC\r\n$1\r\ny\r\n" + "*-1\r\n+OK\r\n-ERR\r\n$3\r\nmsg\r\n:5\r\n" +
        "*3\r\n$7\r\nmessage\r\n$5\r\nOTHER\r\n$3\r\ntwo\r\n" + "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\nthr";
    FakeRedis peer;
    std::vector<std::string> got;
    EXPECT_EQ(against(peer, replies, [&](M& m) {
                  return m.subscribe("C", [&](const char* ch, const char* p, size_t n, void*) {
                      got.push_back(std::string(ch) + "=" + std::string(p, n));
                  });
              }), 0);
    EXPECT_EQ(got, (std::vector<std::string>{"C=one", "C=two"}));
}

TEST(ScriptedPeer, SampleReceiversTakeOnlyAPrefixedKeyAndValuePair)
{
    FakeRedis peer;
    const std::string pair = "$18\r\nBIOMETRIC_SAMPLE_m\r\n$1\r\nx\r\n";
    const Captured three = run_captured([&] {
        return against(peer, "*3\r\n" + pair + "$1\r\nx\r\n", [&](M& m) { return !!std::unique_ptr<BImage::Image>(m.bio_sample_recv({"m"}, 1, buf, 16)); });
    });
    EXPECT_EQ(std::to_string(three.status) + three.out + three.err, "0") << "three elements: no pop reply, nothing reported";
    for (const std::string& bad : std::vector<std::string>{"*2\r\n$3\r\nXYZ\r\n$1\r\nx\r\n", "*2\r\n:1\r\n$1\r\nx\r\n", "*2\r\n" + pair.substr(0, 25) + ":1\r\n"})
        EXPECT_EQ(against(peer, bad, [&](M& m) { return m.bio_sample_view({"m"}, 1, [](int, int, BImage::ImageFormat, const unsigned char*) {}); }), -6) << bad;
}

#if HIREDIS_MAJOR >= 1  // 0.14 has no bound on declared lengths
TEST(ScriptedPeer, HugeDeclaredArrayIsRefusedBeforeAnyAllocation)
{
    // An unbounded reader would reserve 16 GiB; a bounded one refuses at once.
    FakeRedis peer;
    int err = 0;
    EXPECT_EQ(against(peer, "*2147483647\r\n", [&](M& m) {
                  char b[8];
                  const int rc = m.list_recv("L", b, 8, 1, nullptr, 0);
                  return err = m.redis_context()->err, rc;
              }), -3);
    EXPECT_EQ(err, REDIS_ERR_PROTOCOL);
}
#endif
