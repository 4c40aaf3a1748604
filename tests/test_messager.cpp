// The bus operations of Messager against a private redis-server, and what
// each does when no server answers or the server is killed (by pid).
#include "bmessager.h"
#include "bshmem.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace bmsg_test;
using M = bMSG::Messager;

namespace {

int count_of(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

char buf[16], key[16];
int int_out;
float float_out;
unsigned long ulong_out;

// Every bus operation with its code for a command that got no reply; the
// subscribe, which blocks, comes last.
const std::vector<std::pair<int, std::function<int(M&)>>> every_op = {
    {-7, [](M& m) { return m.set("k", "v"); }},
    {-7, [](M& m) { return m.set("k", 1); }},
    {-7, [](M& m) { return m.set("k", 1.5f); }},
    {-7, [](M& m) { return m.set("k", 1UL); }},
    {-8, [](M& m) { return m.get("k", buf, 16); }},
    {-8, [](M& m) { return m.get("k", &int_out); }},
    {-8, [](M& m) { return m.get("k", &float_out); }},
    {-8, [](M& m) { return m.get("k", &ulong_out); }},
    {-2, [](M& m) { return m.list_send("L", "%s", "x"); }},
    {-2, [](M& m) { return m.device_cmd_send("%s", "x"); }},
    {-2, [](M& m) { return m.bio_cmd_send("%s", "x"); }},
    {-2, [](M& m) { return m.bio_info_send("%s", "x"); }},
    {-2, [](M& m) { return m.bio_resp_send("%s", "x"); }},
    {-3, [](M& m) { return m.list_recv("L", buf, 16, 1, key, 16); }},
    {-3, [](M& m) { return m.list_recv("L", buf, 16, 0, key, 16); }},
    {-3, [](M& m) { return m.list_size("L"); }},
    {-3, [](M& m) { return m.list_clear("L"); }},
    {-2, [](M& m) { return m.publish("C", "%s", "x"); }},
    {-2, [](M& m) { return m.system_publish("%s", "x"); }},
    {-3, [](M& m) { return m.subscribe("C", {}); }},
};

} // namespace

TEST(Connect, EveryCallRetriesReportingEachFailureAndPausingASecond)
{
    const uint16_t port = free_port();
    const char* no_socket = "/nonexistent/redis.sock";
    std::vector<int> codes(every_op.size(), 0);
    const auto start = std::chrono::steady_clock::now();
    Captured c = run_captured([&] {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < codes.size(); ++i)
            threads.emplace_back([&, i] {
                M m(i % 2 ? no_socket : "127.0.0.1", port, 2);
                codes[i] = m.redis_context() ? 1 : every_op[i].second(m);
            });
        for (std::thread& t : threads)
            t.join();
        return 0;
    });
    EXPECT_GE(seconds_since(start), 3.5) << "two attempts in the constructor, two in the call";
    EXPECT_EQ(codes, std::vector<int>(codes.size(), -1));
    const int reports = 4 * static_cast<int>(codes.size());
    EXPECT_EQ(count_of(c.err, "bMSG ERROR connect["), reports);
    EXPECT_EQ(c.err.find('\n'), std::string::npos);
    const std::string port_text = " port[" + std::to_string(port) + "]";
    EXPECT_EQ(count_of(c.out, "Connection refused: address[127.0.0.1]" + port_text), reports / 2);
    EXPECT_EQ(count_of(c.out, "No such file or directory: address[" + std::string(no_socket) + "]" +
                                  port_text), reports / 2);
    EXPECT_EQ(std::count(c.out.begin(), c.out.end(), '\n'), reports);
}

TEST(Connect, DefaultAddressSocketPathAndWaitingForEver)
{
    RedisServer server;
    M by_null(nullptr, server.port(), 1), by_empty("", server.port(), 1);
    M by_path(server.socket().c_str(), 1, 1);  // the port is ignored
    for (M* m : {&by_null, &by_empty, &by_path})
        EXPECT_EQ(m->set("k", "v"), 0);
    EXPECT_EQ(by_null.server_address(), "127.0.0.1");
    redisContext* held = by_null.redis_context();
    by_null.connect();
    EXPECT_EQ(by_null.redis_context(), held);

    server.stop();
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        server.restart();
    });
    Captured c = run_captured([&] { return M(nullptr, server.port(), 0).set("k", "up"); });
    starter.join();
    EXPECT_EQ(c.status, 0);
    EXPECT_GE(count_of(c.err, "bMSG ERROR connect["), 1);
}

TEST(Settings, StoredAsTextAndReadBackByReplyType)
{
    RedisServer server;
    M m("127.0.0.1", server.port(), 1);
    EXPECT_EQ(m.set("s", "two words") + m.set("i", -3) + m.set("f", 2.5f) +
                  m.set("u", 18446744073709551615UL), 0);
    EXPECT_EQ(redis_raw(server, "MGET s i f u"), "two words\n-3\n2.500000\n18446744073709551615");

    // The buffer form copies all of a value shorter than the buffer, no NUL.
    const std::string mib(1 << 20, 'v');
    std::string out(mib.size() + 2, '#');
    const struct { std::string value; int size; bool copied; } texts[] = {
        {"1234567", 8, true}, {"12345678", 8, false}, {"x", -1, false},
        {mib, 1 << 20, false}, {mib, (1 << 20) + 1, true},
    };
    for (const auto& row : texts) {
        std::fill(out.begin(), out.end(), '#');
        m.set("t", row.value.c_str());
        EXPECT_EQ(m.get("t", out.data(), row.size), 0);
        const size_t n = row.value.size();
        EXPECT_EQ(out.substr(0, n + 1), row.copied ? row.value + "#" : std::string(n + 1, '#'))
            << n << " bytes into " << row.size;
    }
    // Numbers: strtod reads a string; GET never gives the integer reply the
    // int and unsigned long forms take.
    const struct { const char* value; float f; } floats[] = {{"42", 42}, {"3.5xyz", 3.5f}, {"abc", 0}};
    for (const auto& row : floats) {
        m.set("n", row.value);
        float f = -1;
        int i = 7;
        unsigned long u = 9;
        EXPECT_EQ(m.get("n", &f) + m.get("n", &i) + m.get("n", &u), 0);
        EXPECT_EQ(f, row.f) << row.value;
        EXPECT_EQ(i * 10 + u, 79u);
    }
    float f = 8;
    EXPECT_EQ(m.get("missing", &f), 0);
    EXPECT_EQ(f, 8);
}

TEST(Lists, ReceiveCopiesWhatFitsNamesTheKeyAndAlwaysTakesTheElement)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    const std::string mib(1 << 20, 'v'), none(16, '#');
    std::string out(mib.size() + 2, '#');
    char name[17] = {};
    // value, buffer size, timeout, key size, result, value copied, key written
    const struct { std::string value; int size, timeout, key_size, rc; bool copied; std::string key; } rows[] = {
        {"a b", 16, 0, 16, 3, true, "DEVICE_CMD"}, {"a b", 16, 1, 16, 3, true, "DEVICE_CMD"},
        {"1234567", 8, 0, 0, 7, true, none}, {"1234567", 8, 1, 0, 7, true, none},
        {"12345678", 8, 0, 16, -5, false, none}, {"12345678", 8, 1, 16, -5, false, none},
        {"12345678", -1, 1, 16, 8, true, "DEVICE_CMD"}, {std::string("a\0b", 3), 4, 1, 11, 3, true, "DEVICE_CMD"},
        {"go", 16, 1, 10, -5, true, "DEVICE_CM"}, {"go", 16, 0, 10, -5, true, "DEVICE_CM"},
        {"go", 16, 1, 1, -5, true, ""}, {"go", 16, 0, -4, 2, true, none},
        {"", 0, 0, 16, -5, false, none}, {"", 1, 1, 16, 0, false, "DEVICE_CMD"},
        {mib, 1 << 20, 1, 16, -5, false, none}, {mib, (1 << 20) + 1, 0, 16, 1 << 20, true, "DEVICE_CMD"},
    };
    for (const auto& row : rows) {
        std::fill(out.begin(), out.end(), '#');
        memset(name, '#', 16);
        ASSERT_EQ(m.list_send("DEVICE_CMD", "%b", row.value.data(), row.value.size()), 0);
        EXPECT_EQ(m.list_recv("DEVICE_CMD", out.data(), row.size, row.timeout, name, row.key_size), row.rc)
            << row.value.size() << " bytes into " << row.size << ", timeout " << row.timeout;
        const size_t n = row.value.size();
        EXPECT_EQ(out.substr(0, n + 1), row.copied ? row.value + "#" : std::string(n + 1, '#'));
        EXPECT_EQ(name, row.key);
        EXPECT_EQ(m.list_size("DEVICE_CMD"), 0);
    }
    m.set("str", "v");
    for (int timeout : {0, 1})
        EXPECT_EQ(m.list_recv("EMPTY", buf, 16, timeout, key, 16) + m.list_recv("str", buf, 16, timeout, key, 16), 0);

    // Literal text splits at blanks; "%%" is a percent sign.
    EXPECT_EQ(m.list_send("Q", "x y z") + m.list_send("Q", "100%%"), 0);
    EXPECT_EQ(m.list_size("Q"), 4);
    EXPECT_EQ(redis_raw(server, "LRANGE Q 0 -1"), "100%\nz\ny\nx");
    EXPECT_EQ(m.list_clear("Q"), 1);
    EXPECT_EQ(m.list_clear("Q"), 0);
    EXPECT_EQ(m.device_cmd_send("%s", "d") + m.bio_cmd_send("%s", "c") + m.bio_info_send("%s", "i") +
                  m.bio_resp_send("%s", "r"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP DEVICE_CMD") + redis_raw(server, "RPOP BIO_CMD") +
                  redis_raw(server, "RPOP MAIN_BIOMETRIC_INFO") + redis_raw(server, "RPOP BIOMETRIC_RESP"),
              "dcir");
}

TEST(PublishSubscribe, DeliversInOrderUntilTheServerGoes)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    std::vector<std::string> got;
    std::atomic<size_t> delivered{0};
    std::atomic<int> sub_rc{1};
    std::atomic<bool> threw{false};
    std::thread sub([&] {
        sub_rc = M(nullptr, server.port(), 1).subscribe("SYSTEM_STATUS", [&](const char* ch, const char* p, size_t n, void* user) {
            got.push_back(std::string(ch) + "=" + std::string(p, n) + (p[n] || user ? "!" : ""));
            ++delivered;
        });
    });
    std::thread empty([&] {
        try {
            M(server.socket().c_str(), 0, 1).subscribe("E", {});
        } catch (const std::bad_function_call&) {
            threw = true;
        }
    });
    ASSERT_TRUE(wait_subscribers(server, "SYSTEM_STATUS", 1) && wait_subscribers(server, "E", 1));
    EXPECT_FALSE(threw.load());
    Captured c = run_captured([&] {
        return m.system_publish("%s", "ready now") * 1000 + m.publish("SYSTEM_STATUS", "%b", "z\0z", size_t{3}) * 100 +
               m.publish("E", "%s", "x") * 10 + m.publish("SYSTEM_STATUS", "a b c") + m.publish("nobody", "x");
    });
    EXPECT_EQ(c.status, 1110) << "literal blanks make a command the server refuses";
    EXPECT_EQ(c.out + c.err, "");
    empty.join();
    EXPECT_TRUE(threw.load());
    wait_until([&] { return delivered == 2; });
    server.stop();
    sub.join();
    EXPECT_EQ(sub_rc.load(), 0);
    EXPECT_EQ(got, (std::vector<std::string>{"SYSTEM_STATUS=ready now", std::string("SYSTEM_STATUS=z\0z", 17)}));
}

TEST(Messager, ConnectionsStayOutOfChildProcessesAndOwnedSegmentsGoWithIt)
{
    RedisServer server;
    const std::string segment = "/bmsg_test_owned_" + std::to_string(getpid());
    for (const char* address : {server.socket().c_str(), "127.0.0.1"}) {
        Child child;
        {
            M m(address, server.port(), 1);
            m.segments["a"] = new bMSG::SharedMemory(segment, 16, true);
            freeReplyObject(redisCommand(m.redis_context(), "SUBSCRIBE C"));
            child = spawn_native("sleep", {"60"});
            ASSERT_TRUE(wait_subscribers(server, "C", 1));
        }
        EXPECT_TRUE(wait_subscribers(server, "C", 0)) << "the child holds the connection " << address;
        EXPECT_EQ(bMSG::SharedMemory(segment, 16, false).addr, nullptr);
    }
}

TEST(ServerKilled, EveryOperationGivesItsCodeAndKeepsTheBrokenConnection)
{
    for (bool unix_socket : {true, false}) {
        RedisServer server;
        Captured c = run_captured([&] {
            M m(unix_socket ? server.socket().c_str() : nullptr, server.port(), 1);
            server.stop();
            std::string wrong;
            for (const auto& [code, op] : every_op)
                if (op(m) != code)
                    wrong += std::to_string(code) + " ";
            printf("%s", wrong.c_str());
            return m.redis_context() ? 0 : 1;
        });
        EXPECT_EQ(c.status, 0);
        EXPECT_EQ(c.out, "publish error: reply is NULL\n") << "unix " << unix_socket;
        EXPECT_EQ(count_of(c.err, "bMSG ERROR publish["), 1);
    }
}

TEST(ServerKilled, BlockedPopSubscriberAndCommandLoopReturnThenANewMessagerWorks)
{
    for (bool unix_socket : {true, false}) {
        RedisServer server;
        const char* address = unix_socket ? server.socket().c_str() : "127.0.0.1";
        std::atomic<int> pop = 1, again = 1, set = 1, sub = 1;
        std::string loop_faults;
        std::thread popper([&] {
            M m(address, server.port(), 1);
            pop = m.list_recv("Q", buf, 16, 30, key, 16);
            again = m.list_recv("Q", buf, 16, 30, key, 16);
            set = m.set("k", "v");
        });
        std::thread subscriber([&] { sub = M(address, server.port(), 1).subscribe("S", [](auto...) {}); });
        std::thread loop([&] {
            M m(address, server.port(), 1);
            for (int i = 0, failed_at = -1; failed_at < 0 || i < failed_at + 3; ++i)
                for (size_t op = 0; op + 1 < every_op.size(); ++op) {
                    const int rc = every_op[op].second(m);
                    failed_at = failed_at < 0 && rc < 0 ? i : failed_at;
                    if (failed_at >= 0 && rc != every_op[op].first)
                        loop_faults += std::to_string(i) + ":" + std::to_string(op) + "=" + std::to_string(rc) + " ";
                }
        });
        ASSERT_TRUE(wait_until([&] {
            return redis_raw(server, "INFO clients").find("blocked_clients:1") != std::string::npos &&
                   redis_raw(server, "PUBSUB NUMSUB S") == "S\n1" && atoi(redis_raw(server, "LLEN BIO_CMD").c_str()) > 200;
        }));
        server.stop();
        popper.join();
        subscriber.join();
        loop.join();
        EXPECT_EQ(std::vector<int>({pop, again, set, sub}), std::vector<int>({-3, -3, -7, 0}));
        EXPECT_EQ(loop_faults, "");
        server.restart();
        M fresh(address, server.port(), 1);
        EXPECT_EQ(fresh.list_send("Q", "%s", "again"), 0);
        EXPECT_EQ(fresh.list_recv("Q", buf, 16, 1, nullptr, 0), 5);
    }
}
