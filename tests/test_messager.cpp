#include "bmessager.h"
#include "bshmem.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using bmsg_test::Captured;
using bmsg_test::RedisServer;
using bmsg_test::redis_raw;
using bmsg_test::run_captured;
using bmsg_test::seconds_since;

namespace {

using Clock = std::chrono::steady_clock;

int count_of(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}


// Each bus test runs over TCP and over the Unix socket path.
class Bus : public ::testing::TestWithParam<bool> {
protected:
    RedisServer server;
    bMSG::Messager m{GetParam() ? server.socket().c_str() : "127.0.0.1", server.port(), 3};
};

INSTANTIATE_TEST_SUITE_P(Transport, Bus, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "unix" : "tcp"; });

} // namespace

TEST(Connect, DefaultAddressAndSocketPath)
{
    RedisServer server;
    bMSG::Messager null_addr(nullptr, server.port(), 1);
    bMSG::Messager empty_addr("", server.port(), 1);
    EXPECT_EQ(null_addr.server_address(), "127.0.0.1");
    EXPECT_NE(null_addr.redis_context(), nullptr);
    EXPECT_NE(empty_addr.redis_context(), nullptr);

    // A socket path ignores the port.
    bMSG::Messager unix_path(server.socket().c_str(), 1, 1);
    ASSERT_NE(unix_path.redis_context(), nullptr);
    EXPECT_EQ(unix_path.set("k", "v"), 0);
    EXPECT_EQ(redis_raw(server, "GET k"), "v");

    EXPECT_STREQ(null_addr.device_cmd, "DEVICE_CMD");
    EXPECT_STREQ(null_addr.bio_sample, "BIOMETRIC_SAMPLE_");
    EXPECT_STREQ(null_addr.device_status, "DEVICE_STATUS");
    EXPECT_STREQ(null_addr.system_status, "SYSTEM_STATUS");
    EXPECT_STREQ(null_addr.bio_info, "MAIN_BIOMETRIC_INFO");
    EXPECT_STREQ(null_addr.bio_cmd, "BIO_CMD");
    EXPECT_STREQ(null_addr.bio_resp, "BIOMETRIC_RESP");
}

TEST(Connect, RetryLoopReportsEachAttemptAndRetriesOnNextCall)
{
    const uint16_t dead = bmsg_test::free_port();
    Captured c = run_captured([dead] {
        auto t = Clock::now();
        bMSG::Messager m("127.0.0.1", dead, 2);
        double ctor = seconds_since(t);
        if (m.redis_context() || ctor < 1.9 || ctor > 4.0)
            return 1;
        t = Clock::now();
        if (m.set("k", 1) != -1 || m.get("k", static_cast<int*>(nullptr)) != -1)
            return 2;
        return seconds_since(t) >= 3.9 ? 0 : 3;
    });
    EXPECT_EQ(c.status, 0);
    // Two attempts in the constructor and two in each later call.
    const std::string prefix = "bMSG ERROR connect[";
    EXPECT_EQ(count_of(c.err, prefix), 6) << c.err;
    EXPECT_EQ(c.err.find('\n'), std::string::npos) << "the prefix has no line break";
    const std::string line =
        "Connection refused: address[127.0.0.1] port[" + std::to_string(dead) + "]\n";
    EXPECT_EQ(count_of(c.out, line), 6) << c.out;
}

TEST(Connect, ZeroAttemptsWaitsForTheServer)
{
    RedisServer server;
    server.stop();
    Captured c = run_captured([&] {
        std::thread starter([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            server.restart();
        });
        bMSG::Messager m(nullptr, server.port(), 0);
        starter.join();
        int rc = m.redis_context() && m.set("k", "up") == 0 ? 0 : 1;
        server.stop();
        return rc;
    });
    EXPECT_EQ(c.status, 0) << c.out;
    EXPECT_GE(count_of(c.err, "bMSG ERROR connect["), 1);
}

TEST_P(Bus, SettingsStoreTheirDecimalText)
{
    EXPECT_EQ(m.set("s", "two words"), 0);
    EXPECT_EQ(m.set("i", -3), 0);
    EXPECT_EQ(m.set("f", 2.5f), 0);
    EXPECT_EQ(m.set("u", 18446744073709551615UL), 0);
    EXPECT_EQ(redis_raw(server, "GET s"), "two words");
    EXPECT_EQ(redis_raw(server, "GET i"), "-3");
    EXPECT_EQ(redis_raw(server, "GET f"), "2.500000");
    EXPECT_EQ(redis_raw(server, "GET u"), "18446744073709551615");

    // A server error (wrong type) still counts as a reply.
    redis_raw(server, "LPUSH alist x");
    EXPECT_EQ(m.set("alist", "v"), 0);
}

TEST_P(Bus, GetCopiesOnlyWhatFitsAndReadsNumbersByReplyType)
{
    m.set("seven", "1234567");
    m.set("eight", "12345678");
    char buf[8];
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(m.get("seven", buf, 8), 0);
    EXPECT_EQ(std::string(buf, 8), "1234567#") << "no terminating NUL";
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(m.get("eight", buf, 8), 0);
    EXPECT_EQ(std::string(buf, 8), "########") << "an over-long value is not copied at all";
    EXPECT_EQ(m.get("missing", buf, 8), 0);
    EXPECT_EQ(std::string(buf, 8), "########");

    m.set("n", 42);
    int i = 7;
    unsigned long u = 9;
    float f = -1.0f;
    EXPECT_EQ(m.get("n", &i), 0);
    EXPECT_EQ(m.get("n", &u), 0);
    EXPECT_EQ(i, 7) << "GET answers a string, never an integer";
    EXPECT_EQ(u, 9u);
    EXPECT_EQ(m.get("n", &f), 0);
    EXPECT_FLOAT_EQ(f, 42.0f);
    m.set("t", "abc");
    EXPECT_EQ(m.get("t", &f), 0);
    EXPECT_FLOAT_EQ(f, 0.0f);
    m.set("t", "3.5xyz");
    EXPECT_EQ(m.get("t", &f), 0);
    EXPECT_FLOAT_EQ(f, 3.5f);
    f = 8.0f;
    EXPECT_EQ(m.get("missing", &f), 0);
    EXPECT_FLOAT_EQ(f, 8.0f);
}

TEST_P(Bus, ListsAreFifoAndReportWhatDoesNotFit)
{
    char buf[64] = {};
    EXPECT_EQ(m.list_send("Q", "%s", "a b"), 0);
    EXPECT_EQ(m.list_send("Q", "%s", "second"), 0);
    EXPECT_EQ(m.list_size("Q"), 2);
    EXPECT_EQ(m.list_recv("Q", buf, 64, 0, nullptr, 0), 3);
    EXPECT_EQ(std::string(buf, 3), "a b");
    EXPECT_EQ(m.list_recv("Q", buf, 64, 0, nullptr, 0), 6);
    EXPECT_EQ(std::string(buf, 6), "second");
    EXPECT_EQ(m.list_recv("Q", buf, 64, 0, nullptr, 0), 0) << "empty list, no wait";

    // Literal text is split at blanks; "%%" is one percent sign.
    EXPECT_EQ(m.list_send("Q", "x y z"), 0);
    EXPECT_EQ(m.list_send("Q", "100%%"), 0);
    EXPECT_EQ(redis_raw(server, "LRANGE Q 0 -1"), "100%\nz\ny\nx");
    EXPECT_EQ(m.list_clear("Q"), 1);
    EXPECT_EQ(m.list_clear("Q"), 0);
    EXPECT_EQ(m.list_size("Q"), 0);

    // Raw bytes with "%b", zero bytes included.
    const char raw[4] = {'a', 0, 'b', 0};
    EXPECT_EQ(m.list_send("B", "%b", raw, sizeof raw), 0);
    memset(buf, 0x55, sizeof buf);
    EXPECT_EQ(m.list_recv("B", buf, 64, 0, nullptr, 0), 4);
    EXPECT_EQ(memcmp(buf, raw, 4), 0);
    EXPECT_EQ(static_cast<unsigned char>(buf[4]), 0x55);

    // A value of exactly `size` bytes does not fit and is lost.
    m.list_send("Q", "%s", "12345678");
    EXPECT_EQ(m.list_recv("Q", buf, 8, 0, nullptr, 0), -5);
    EXPECT_EQ(m.list_size("Q"), 0);
    // A negative size admits any length.
    m.list_send("Q", "%s", "12345678");
    EXPECT_EQ(m.list_recv("Q", buf, -1, 0, nullptr, 0), 8);
}

TEST_P(Bus, BlockingReceiveNamesTheKeyAndTimesOut)
{
    char buf[64];
    char key[16];
    EXPECT_EQ(m.device_cmd_send("%s", "reboot"), 0);
    EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 64, 1, key, 11), 6);
    EXPECT_STREQ(key, "DEVICE_CMD");
    EXPECT_EQ(m.device_cmd_send("%s", "reboot"), 0);
    EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 64, 1, key, 5), -5);
    EXPECT_STREQ(key, "DEVI");
    EXPECT_EQ(std::string(buf, 6), "reboot") << "the value stays copied";
    // The RPOP form writes the requested key too.
    EXPECT_EQ(m.device_cmd_send("%s", "x"), 0);
    EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 64, 0, key, 16), 1);
    EXPECT_STREQ(key, "DEVICE_CMD");

    EXPECT_EQ(m.bio_cmd_send("%s", "c"), 0);
    EXPECT_EQ(m.bio_info_send("%s", "i"), 0);
    EXPECT_EQ(m.bio_resp_send("%s", "r"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP BIO_CMD"), "c");
    EXPECT_EQ(redis_raw(server, "RPOP MAIN_BIOMETRIC_INFO"), "i");
    EXPECT_EQ(redis_raw(server, "RPOP BIOMETRIC_RESP"), "r");

    auto t = Clock::now();
    EXPECT_EQ(m.list_recv("EMPTY", buf, 64, 1, key, 16), 0);
    EXPECT_GE(seconds_since(t), 0.9);

    // Server errors (a string key popped as a list) count as nothing received.
    m.set("str", "v");
    EXPECT_EQ(m.list_recv("str", buf, 64, 0, nullptr, 0), 0);
    EXPECT_EQ(m.list_recv("str", buf, 64, 1, nullptr, 0), 0);
    EXPECT_EQ(m.list_size("str"), 0);
}

TEST_P(Bus, CommandTemplateIsBoundedAndTakesKeysLiterally)
{
    // "LPUSH " + key + " " + format must fit 1023 characters and the NUL.
    const std::string key = "K";
    std::string format(1023 - 8, 'f');
    EXPECT_EQ(m.list_send(key.c_str(), format.c_str()), 0);
    EXPECT_EQ(m.list_size("K"), 1);
    format += 'f';
    EXPECT_EQ(m.list_send(key.c_str(), format.c_str()), -2);
    EXPECT_EQ(m.publish("C", format.c_str()), -2) << "refused, nothing sent";
    EXPECT_EQ(m.list_size("K"), 1);
    EXPECT_EQ(m.list_send(nullptr, "%s", "x"), -2);

    // A '%' in a key is text, not a conversion that reads missing arguments.
    EXPECT_EQ(m.list_send("odd%s%n%key", "%s", "v"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP %s", "odd%s%n%key"), "v");
    std::string long_key(1015, '%');
    EXPECT_EQ(m.list_send(long_key.c_str(), "%s", "v"), -2) << "escaping counts toward the limit";
}

TEST_P(Bus, PublishCountsSubscribersAndSubscribeDeliversInOrder)
{
    EXPECT_EQ(m.publish("nobody", "%s", "x"), 0);

    struct Got {
        std::string channel, payload;
        size_t len;
        void* user;
    };
    std::vector<Got> got;
    std::atomic<size_t> delivered{0};
    std::thread sub([&] {
        bMSG::Messager s(GetParam() ? server.socket().c_str() : nullptr, server.port(), 1);
        EXPECT_EQ(s.subscribe("SYSTEM_STATUS",
                              [&](const char* ch, const char* p, size_t n, void* u) {
                                  got.push_back({ch, std::string(p, n), n, u});
                                  EXPECT_EQ(p[n], '\0');
                                  ++delivered;
                              }),
                  0);
    });
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "SYSTEM_STATUS", 1));
    EXPECT_EQ(m.system_publish("%s", "ready now"), 1);
    EXPECT_EQ(m.publish("SYSTEM_STATUS", "%s", "second"), 1);
    EXPECT_EQ(m.publish("SYSTEM_STATUS", "%b", "z\0z", static_cast<size_t>(3)), 1);
    // Literal blanks make extra arguments: the server refuses, silently 0.
    Captured c = run_captured([&] { return m.publish("SYSTEM_STATUS", "a b c"); });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out + c.err, "");
    // Give the subscriber a moment, then end subscribe by killing the server.
    for (int i = 0; i < 200 && delivered < 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    server.stop();
    sub.join();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].channel, "SYSTEM_STATUS");
    EXPECT_EQ(got[0].payload, "ready now");
    EXPECT_EQ(got[0].len, 9u);
    EXPECT_EQ(got[0].user, nullptr);
    EXPECT_EQ(got[1].payload, "second");
    EXPECT_EQ(got[2].payload, std::string("z\0z", 3));
}

TEST(PublishSubscribe, EmptyCallbackThrowsOnFirstMessage)
{
    RedisServer server;
    bMSG::Messager m(nullptr, server.port(), 1);
    std::atomic<bool> threw{false};
    std::thread sub([&] {
        bMSG::Messager s(nullptr, server.port(), 1);
        try {
            s.subscribe("C", bMSG::MessageCallback());
        } catch (const std::bad_function_call&) {
            threw = true;
        }
    });
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "C", 1));
    EXPECT_FALSE(threw.load()) << "not at the call";
    m.publish("C", "%s", "x");
    sub.join();
    EXPECT_TRUE(threw.load());
}

TEST(LostConnection, EveryOperationFailsWithItsCodeAndNeverReconnects)
{
    RedisServer server;
    Captured c = run_captured([&] {
        bMSG::Messager m(nullptr, server.port(), 1);
        if (!m.redis_context())
            return 1;
        server.stop();
        char buf[8];
        int i = 0;
        std::vector<int> codes = {
            m.set("k", "v"), m.set("k", 1), m.set("k", 1.0f), m.set("k", 1UL),
            m.get("k", buf, 8), m.get("k", &i),
            m.list_send("L", "%s", "x"), m.bio_cmd_send("%s", "x"),
            m.list_recv("L", buf, 8, 0, nullptr, 0), m.list_size("L"), m.list_clear("L"),
            m.system_publish("%s", "x"),
        };
        printf("codes:");
        for (int code : codes)
            printf(" %d", code);
        printf("\n");
        fflush(stdout);
        // The variadic publish reports; the subscribe command gets no reply.
        if (m.publish("C", "%s", "x") != -2 || m.subscribe("C", {}) != -3)
            return 2;
        return m.redis_context() ? 0 : 3;
    });
    EXPECT_EQ(c.status, 0) << c.out << c.err;
    EXPECT_NE(c.out.find("codes: -7 -7 -7 -7 -8 -8 -2 -2 -3 -3 -3 -2\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("publish error: reply is NULL\n"), std::string::npos);
    EXPECT_EQ(count_of(c.err, "bMSG ERROR publish["), 1) << "system_publish stays silent";
}

TEST(LostConnection, SubscribeReturnsZeroWhenTheServerGoes)
{
    RedisServer server;
    std::atomic<int> rc{1};
    std::thread sub([&] {
        bMSG::Messager s(server.socket().c_str(), 0, 1);
        rc = s.subscribe("C", [](const char*, const char*, size_t, void*) {});
    });
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "C", 1));
    server.stop();
    sub.join();
    EXPECT_EQ(rc.load(), 0);
}

TEST(Messager, DestructorFreesOwnedSegments)
{
    RedisServer server;
    const std::string name = "/bmsg_test_owned_" + std::to_string(getpid());
    {
        bMSG::Messager m(nullptr, server.port(), 1);
        m.segments["a"] = new bMSG::SharedMemory(name, 16, true);
        m.segments["b"] = nullptr;
        bMSG::SharedMemory peek(name, 16, false);
        EXPECT_NE(peek.addr, nullptr);
    }
    bMSG::SharedMemory gone(name, 16, false);
    EXPECT_EQ(gone.addr, nullptr) << "the owner's segment is unlinked";
}
