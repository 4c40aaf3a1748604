// Hostile and extreme input: keys, channels and formats at and past the
// command template, values past the caller's buffers, 1 MiB values, and
// replies that only a scripted peer sends.
#include "bmessager.h"
#include "fake_redis.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

using bmsg_test::Captured;
using bmsg_test::FakeRedis;
using bmsg_test::RedisServer;
using bmsg_test::redis_raw;
using bmsg_test::run_captured;

namespace {

constexpr size_t mib = 1 << 20;

std::string random_bytes(size_t n)
{
    std::mt19937 gen(42);
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(gen());
    return s;
}

// The va_list form of publish, which only system_publish reaches otherwise.
int publish_va(bMSG::Messager& m, const char* channel, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int rc = m.publish(channel, format, ap);
    va_end(ap);
    return rc;
}

// Runs `call` on a fresh Messager whose first command the peer answers with
// `reply` before closing the connection.
template <class Call>
int against(FakeRedis& peer, const std::string& reply, Call call)
{
    peer.answer(reply);
    int rc;
    {
        bMSG::Messager m(peer.socket().c_str(), 0, 1);
        rc = call(m);
    }
    peer.wait_idle();
    return rc;
}

} // namespace

TEST(Template, KeysChannelsAndFormatsFitUpTo1023Characters)
{
    RedisServer server;
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    // "LPUSH " + key + " %s" and "PUBLISH " + channel + " %s".
    const std::string key(1023 - 9, 'k');
    const std::string channel(1023 - 11, 'c');
    EXPECT_EQ(m.list_send(key.c_str(), "%s", "v"), 0);
    EXPECT_EQ(m.list_size(key.c_str()), 1);
    EXPECT_EQ(m.list_send((key + "k").c_str(), "%s", "v"), -2);
    EXPECT_EQ(m.list_size((key + "k").c_str()), 0);
    EXPECT_EQ(m.publish(channel.c_str(), "%s", "v"), 0);
    EXPECT_EQ(publish_va(m, channel.c_str(), "%s", "v"), 0);
    EXPECT_EQ(m.publish((channel + "c").c_str(), "%s", "v"), -2);
    EXPECT_EQ(publish_va(m, (channel + "c").c_str(), "%s", "v"), -2);

    // The named senders and system_publish leave the rest to the format.
    const std::string device_fmt(1023 - 17, 'f');  // "LPUSH DEVICE_CMD "
    const std::string system_fmt(1023 - 22, 'f');  // "PUBLISH SYSTEM_STATUS "
    EXPECT_EQ(m.device_cmd_send(device_fmt.c_str()), 0);
    EXPECT_EQ(m.device_cmd_send((device_fmt + "f").c_str()), -2);
    EXPECT_EQ(m.list_size("DEVICE_CMD"), 1);
    EXPECT_EQ(m.system_publish(system_fmt.c_str()), 0);
    EXPECT_EQ(m.system_publish((system_fmt + "f").c_str()), -2);
    EXPECT_EQ(m.list_send("K", nullptr), -2) << "a null format is refused too";
    EXPECT_EQ(m.publish(nullptr, "%s", "v"), -2);

    // Keys outside the template (SET, GET, pops, LLEN, DEL) have no limit.
    const std::string huge_key(100000, 'h');
    char buf[8] = {};
    char key_out[100001];
    EXPECT_EQ(m.set(huge_key.c_str(), "v"), 0);
    EXPECT_EQ(m.get(huge_key.c_str(), buf, 8), 0);
    EXPECT_STREQ(buf, "v");
    redis_raw(server, "LPUSH %s x y", huge_key.c_str());
    EXPECT_EQ(m.list_size(huge_key.c_str()), 0) << "a string key, not a list";
    EXPECT_EQ(m.list_clear(huge_key.c_str()), 1);
    redis_raw(server, "LPUSH %s x y", huge_key.c_str());
    EXPECT_EQ(m.list_size(huge_key.c_str()), 2);
    EXPECT_EQ(m.list_recv(huge_key.c_str(), buf, 8, 0, key_out, sizeof key_out), 1);
    EXPECT_EQ(m.list_recv(huge_key.c_str(), buf, 8, 1, key_out, sizeof key_out), 1);
    EXPECT_EQ(key_out, huge_key);
}

TEST(Template, RefusedCommandsSendNothing)
{
    FakeRedis peer;
    const std::string long_key(1100, 'k');
    const int rc = against(peer, ":1\r\n", [&](bMSG::Messager& m) {
        return m.list_send(long_key.c_str(), "%s", "v") == -2 &&
               m.bio_info_send(long_key.c_str()) == -2 &&
               m.publish(long_key.c_str(), "%s", "v") == -2 &&
               publish_va(m, long_key.c_str(), "%s", "v") == -2 &&
               m.system_publish(long_key.c_str()) == -2;
    });
    EXPECT_TRUE(rc);
    EXPECT_TRUE(peer.take_commands().empty());
}

TEST(LargeValues, OneMebibyteTravelsWholeAndOneByteShortOfRoomIsRefused)
{
    RedisServer server;
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    const std::string value = random_bytes(mib);
    std::vector<char> buf(mib + 1, '#');
    char key[8];

    EXPECT_EQ(m.list_send("BIG", "%b", value.data(), value.size()), 0);
    EXPECT_EQ(m.list_recv("BIG", buf.data(), mib + 1, 0, nullptr, 0), static_cast<int>(mib));
    EXPECT_EQ(memcmp(buf.data(), value.data(), mib), 0);
    EXPECT_EQ(buf[mib], '#');
    EXPECT_EQ(m.list_send("BIG", "%b", value.data(), value.size()), 0);
    EXPECT_EQ(m.list_recv("BIG", buf.data(), mib + 1, 1, key, sizeof key), static_cast<int>(mib));
    EXPECT_STREQ(key, "BIG");

    // Exactly the buffer's size: refused in both forms, and the value is gone.
    std::fill(buf.begin(), buf.end(), '#');
    for (int timeout : {0, 1}) {
        EXPECT_EQ(m.list_send("BIG", "%b", value.data(), value.size()), 0);
        EXPECT_EQ(m.list_recv("BIG", buf.data(), mib, timeout, key, sizeof key), -5);
        EXPECT_EQ(m.list_size("BIG"), 0);
    }
    EXPECT_EQ(std::count(buf.begin(), buf.end(), '#'), static_cast<long>(mib + 1));

    // GET copies all or nothing.
    const std::string text(mib, 't');
    EXPECT_EQ(m.set("T", text.c_str()), 0);
    EXPECT_EQ(m.get("T", buf.data(), mib), 0);
    EXPECT_EQ(buf[0], '#');
    EXPECT_EQ(m.get("T", buf.data(), mib + 1), 0);
    EXPECT_EQ(std::string(buf.data(), mib), text);

    // A subscriber gets the whole payload.
    std::atomic<size_t> got{0};
    std::thread sub([&] {
        bMSG::Messager s(server.socket().c_str(), 0, 1);
        s.subscribe("C", [&](const char*, const char* p, size_t n, void*) {
            if (n == mib && memcmp(p, value.data(), n) == 0)
                got = n;
        });
    });
    for (int i = 0; i < 500 && redis_raw(server, "PUBSUB NUMSUB C") != "C\n1"; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(m.publish("C", "%b", value.data(), value.size()), 1);
    for (int i = 0; i < 500 && got.load() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    server.stop();
    sub.join();
    EXPECT_EQ(got.load(), mib);
}

TEST(KeyBuffer, TooSmallCutsTheKeyButKeepsTheValueAndNoRoomWritesNothing)
{
    RedisServer server;
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    char buf[16];
    char key[16];
    for (int timeout : {0, 1}) {
        m.device_cmd_send("%s", "go");
        memset(buf, 0, sizeof buf);
        EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 16, timeout, key, 3), -5);
        EXPECT_STREQ(key, "DE");
        EXPECT_STREQ(buf, "go");
        m.device_cmd_send("%s", "go");
        EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 16, timeout, key, 1), -5);
        EXPECT_STREQ(key, "");
        for (int no_room : {0, -4}) {
            m.device_cmd_send("%s", "go");
            memset(key, '#', sizeof key);
            EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 16, timeout, key, no_room), 2);
            EXPECT_EQ(key[0], '#');
        }
        m.device_cmd_send("%s", "go");
        EXPECT_EQ(m.list_recv("DEVICE_CMD", buf, 16, timeout, nullptr, 16), 2);
    }
    // A zero-sized buffer takes nothing, not even an empty value.
    redis_raw(server, "LPUSH E %s", "");
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(m.list_recv("E", buf, 0, 0, nullptr, 0), -5);
    EXPECT_EQ(buf[0], '#');
}

TEST(ScriptedPeer, PopRepliesARealServerNeverSends)
{
    FakeRedis peer;
    char buf[16];
    char key[16];
    auto brpop = [&](const std::string& reply, char* key_out) {
        memset(buf, 0, sizeof buf);
        memset(key, 0, sizeof key);
        return against(peer, reply, [&](bMSG::Messager& m) {
            return m.list_recv("Q", buf, 16, 5, key_out, 16);
        });
    };
    auto rpop = [&](const std::string& reply) {
        return against(peer, reply, [&](bMSG::Messager& m) {
            return m.list_recv("Q", buf, 16, 0, key, 16);
        });
    };

    // A key element that is not a string: the value stays copied.
    EXPECT_EQ(brpop("*2\r\n:5\r\n$3\r\nabc\r\n", key), -6);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(brpop("*2\r\n:5\r\n$3\r\nabc\r\n", nullptr), 3) << "the key is not looked at";
    EXPECT_EQ(brpop("*2\r\n$1\r\nQ\r\n:7\r\n", key), -6);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(brpop("*2\r\n$1\r\nQ\r\n*1\r\n$1\r\nx\r\n", key), -6);
    EXPECT_EQ(brpop("*2\r\n$1\r\nQ\r\n$16\r\n0123456789abcdef\r\n", key), -5);
    EXPECT_EQ(brpop("*2\r\n$5\r\nOTHER\r\n$1\r\nv\r\n", key), 1);
    EXPECT_STREQ(key, "OTHER") << "the key the server named";
    for (const char* nothing : {"*3\r\n$1\r\nQ\r\n$1\r\nv\r\n$1\r\nw\r\n", "*1\r\n$1\r\nQ\r\n",
                                "*0\r\n", "*-1\r\n", "$-1\r\n", "+OK\r\n", "-ERR no\r\n", ":9\r\n"})
        EXPECT_EQ(brpop(nothing, key), 0) << nothing;
    EXPECT_STREQ(buf, "");
    // A plain string answering BRPOP is taken as a value from the named key.
    EXPECT_EQ(brpop("$2\r\nhi\r\n", key), 2);
    EXPECT_STREQ(key, "Q");

    EXPECT_EQ(rpop("*2\r\n$1\r\nQ\r\n$1\r\nv\r\n"), 1) << "an array answers RPOP too";
    EXPECT_EQ(rpop("-ERR wrong type\r\n"), 0);
    // Cut off, malformed, or no answer at all: no reply.
    for (const char* broken : {"$10\r\nabc", "*2\r\n$1\r\nQ\r\n", "?what\r\n", "$x\r\n", ""})
        EXPECT_EQ(rpop(broken), -3) << broken;

    const auto commands = peer.take_commands();
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.front(), (std::vector<std::string>{"BRPOP", "Q", "5"}));
    EXPECT_EQ(commands.back(), (std::vector<std::string>{"RPOP", "Q"}));
}

TEST(ScriptedPeer, GetSetAndListRepliesOfEveryType)
{
    FakeRedis peer;
    int i = -1;
    unsigned long u = 1;
    float f = -1.0f;
    char buf[8];
    auto get_int = [&](const char* reply) {
        return against(peer, reply, [&](bMSG::Messager& m) { return m.get("k", &i); });
    };
    auto get_ulong = [&](const char* reply) {
        return against(peer, reply, [&](bMSG::Messager& m) { return m.get("k", &u); });
    };
    auto get_float = [&](const char* reply) {
        return against(peer, reply, [&](bMSG::Messager& m) { return m.get("k", &f); });
    };
    auto get_text = [&](const char* reply) {
        memset(buf, '#', sizeof buf);
        return against(peer, reply, [&](bMSG::Messager& m) { return m.get("k", buf, 8); });
    };

    // Integer replies reach only the integer readers.
    EXPECT_EQ(get_int(":42\r\n"), 0);
    EXPECT_EQ(i, 42);
    EXPECT_EQ(get_int(":4294967301\r\n"), 0);
    EXPECT_EQ(i, 5) << "the low 32 bits";
    EXPECT_EQ(get_ulong(":-1\r\n"), 0);
    EXPECT_EQ(u, 18446744073709551615UL);
    EXPECT_EQ(get_float(":42\r\n"), 0);
    EXPECT_FLOAT_EQ(f, -1.0f);
    EXPECT_EQ(get_text(":42\r\n"), 0);
    EXPECT_EQ(buf[0], '#');
    EXPECT_EQ(get_int("$2\r\n42\r\n"), 0);
    EXPECT_EQ(i, 5);
    EXPECT_EQ(get_float("$4\r\n2.5x\r\n"), 0);
    EXPECT_FLOAT_EQ(f, 2.5f);
    for (const char* other : {"*1\r\n$1\r\nx\r\n", "+OK\r\n", "-ERR\r\n", "$-1\r\n"}) {
        EXPECT_EQ(get_text(other), 0);
        EXPECT_EQ(buf[0], '#');
        EXPECT_EQ(get_float(other), 0);
        EXPECT_FLOAT_EQ(f, 2.5f);
    }
    EXPECT_EQ(get_text("$0\r\n\r\n"), 0);
    EXPECT_EQ(buf[0], '#') << "an empty value copies nothing";
    EXPECT_EQ(get_text("$7\r\n1234567\r\n"), 0);
    EXPECT_EQ(std::string(buf, 8), "1234567#");

    for (const char* broken : {"", "$3\r\nab", ":12"}) {
        EXPECT_EQ(get_int(broken), -8);
        EXPECT_EQ(get_ulong(broken), -8);
        EXPECT_EQ(get_float(broken), -8);
        EXPECT_EQ(get_text(broken), -8);
        EXPECT_EQ(against(peer, broken, [](bMSG::Messager& m) { return m.set("k", 1); }), -7);
        EXPECT_EQ(against(peer, broken, [](bMSG::Messager& m) { return m.list_size("L"); }), -3);
        EXPECT_EQ(against(peer, broken, [](bMSG::Messager& m) { return m.list_clear("L"); }), -3);
        EXPECT_EQ(against(peer, broken, [](bMSG::Messager& m) { return m.bio_cmd_send("%s", "x"); }),
                  -2);
    }
    // One connection, several commands: the peer answers each in turn, then
    // holds the connection open.
    peer.take_commands();
    peer.answer_each({"+OK\r\n", "$2\r\nhi\r\n"}, false);
    {
        bMSG::Messager m(peer.socket().c_str(), 0, 1);
        EXPECT_EQ(m.set("k", "hi"), 0);
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(m.get("k", buf, 8), 0);
        EXPECT_EQ(std::string(buf, 3), "hi#");
    }
    peer.wait_idle();
    EXPECT_EQ(peer.take_commands(),
              (std::vector<std::vector<std::string>>{{"SET", "k", "hi"}, {"GET", "k"}}));

    // Counts from replies of other types read as 0.
    EXPECT_EQ(against(peer, "$1\r\n7\r\n", [](bMSG::Messager& m) { return m.list_size("L"); }), 0);
    EXPECT_EQ(against(peer, "-ERR\r\n", [](bMSG::Messager& m) { return m.list_clear("L"); }), 0);
}

TEST(ScriptedPeer, PublishAndSubscribeRepliesOfEveryShape)
{
    // A negative count is returned; only the variadic form reports it.
    Captured c = run_captured([] {
        FakeRedis peer;
        const int variadic =
            against(peer, ":-3\r\n", [](bMSG::Messager& m) { return m.publish("C", "%s", "x"); });
        const int silent =
            against(peer, ":-3\r\n", [](bMSG::Messager& m) { return m.system_publish("%s", "x"); });
        const int refused =
            against(peer, "-ERR\r\n", [](bMSG::Messager& m) { return m.publish("C", "%s", "x"); });
        return variadic == -3 && silent == -3 && refused == 0 ? 0 : 1;
    });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out, "publish error: \n");
    EXPECT_EQ(c.err.rfind("bMSG ERROR publish[", 0), 0u);

    FakeRedis peer;

    // Only three-element "message" arrays with a string payload are handed on.
    const std::string replies =
        std::string("*3\r\n$9\r\nsubscribe\r\n$1\r\nC\r\n:1\r\n") +
        "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\none\r\n" +
        "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n:2\r\n" +
        "*3\r\n:7\r\n$1\r\nC\r\n$1\r\nx\r\n" +
        "*2\r\n$7\r\nmessage\r\n$1\r\nC\r\n" +
        "*4\r\n$8\r\npmessage\r\n$1\r\n*\r\n$1\r\nC\r\n$1\r\ny\r\n" +
        "*-1\r\n+OK\r\n-ERR\r\n$3\r\nmsg\r\n:5\r\n" +
        "*3\r\n$7\r\nmessage\r\n$5\r\nOTHER\r\n$3\r\ntwo\r\n" +
        "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\nthr";
    std::vector<std::string> got;
    const int rc = against(peer, replies, [&](bMSG::Messager& m) {
        return m.subscribe("C", [&](const char* ch, const char* p, size_t n, void*) {
            got.push_back(std::string(ch) + "=" + std::string(p, n));
        });
    });
    EXPECT_EQ(rc, 0) << "the peer closed";
    EXPECT_EQ(got, (std::vector<std::string>{"C=one", "C=two"}));
    EXPECT_EQ(against(peer, "", [](bMSG::Messager& m) {
                  return m.subscribe("C", [](const char*, const char*, size_t, void*) {});
              }),
              -3);
}
