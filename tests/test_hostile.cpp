// Hostile input: keys, channels and formats at and past the 1024-byte
// command template, and replies only a scripted peer sends.
#include "bmessager.h"
#include "fake_redis.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace bmsg_test;
using M = bMSG::Messager;

namespace {

// Runs `call` on a fresh Messager whose first command the peer answers with
// `reply` before closing the connection.
int against(FakeRedis& peer, const std::string& reply, const std::function<int(M&)>& call)
{
    peer.answer(reply);
    int rc = call(*std::make_unique<M>(peer.socket().c_str(), 0, 1));
    peer.wait_idle();
    return rc;
}

} // namespace

TEST(Template, ExactlyFullFitsOneMoreCharacterIsRefusedUnsent)
{
    RedisServer server;
    M m(server.socket().c_str(), 0, 1);
    // The fixed text before the format: verb, blank, name, blank.
    const std::vector<std::pair<size_t, std::function<int(const char*)>>> ops = {
        {8, [&](const char* f) { return m.list_send("K", f); }},
        {10, [&](const char* f) { return m.publish("C", f); }},
        {17, [&](const char* f) { return m.device_cmd_send(f); }},
        {22, [&](const char* f) { return m.system_publish(f); }},
    };
    for (const auto& [prefix, op] : ops) {
        const std::string full(1023 - prefix, 'f');
        EXPECT_EQ(op(full.c_str()), 0) << prefix;
        EXPECT_EQ(op((full + "f").c_str()), -2) << prefix;
    }
    EXPECT_EQ(redis_raw(server, "LLEN K") + redis_raw(server, "LLEN DEVICE_CMD"), "11");

    // A '%' in a name is doubled, so it counts twice and stays literal.
    const std::string percents(507, '%');
    EXPECT_EQ(m.list_send(percents.c_str(), "%s", "v"), 0);
    EXPECT_EQ(m.list_send((percents + "%").c_str(), "%s", "v"), -2);
    EXPECT_EQ(m.publish((percents + "%").c_str(), "%s", "v"), -2);
    EXPECT_EQ(m.list_send("odd%s%n%key", "%s", "v"), 0);
    EXPECT_EQ(redis_raw(server, "RPOP %s", percents.c_str()) + redis_raw(server, "RPOP %s", "odd%s%n%key"), "vv");
    EXPECT_EQ(m.list_send(nullptr, "%s", "v") + m.list_send("K", nullptr) + m.publish(nullptr, "v"), -6);

    // Names outside the template have no limit.
    const std::string huge(100000, 'h');
    char buf[8] = {}, key[100001];
    EXPECT_EQ(m.set(huge.c_str(), "v") + m.get(huge.c_str(), buf, 8), 0);
    EXPECT_STREQ(buf, "v");
    EXPECT_EQ(m.list_clear(huge.c_str()), 1);
    redis_raw(server, "LPUSH %s x y", huge.c_str());
    EXPECT_EQ(m.list_size(huge.c_str()), 2);
    EXPECT_EQ(m.list_recv(huge.c_str(), buf, 8, 1, key, sizeof key), 1);
    EXPECT_EQ(key, huge);

    // A format hiredis cannot read fails the command and, as in hiredis,
    // every later one on that connection.
    EXPECT_EQ(m.list_send("K", "%q"), -2);
    EXPECT_EQ(m.set("k", "v"), -7);
}

TEST(ScriptedPeer, PopRepliesARealServerNeverSends)
{
    FakeRedis peer;
    const struct { const char* reply; int timeout; bool want_key; int rc; const char* value, *key; } rows[] = {
        {"*2\r\n:5\r\n$3\r\nabc\r\n", 5, true, -6, "abc", ""},
        {"*2\r\n:5\r\n$3\r\nabc\r\n", 5, false, 3, "abc", ""},
        {"*2\r\n$1\r\nQ\r\n:7\r\n", 5, true, -6, "", ""},
        {"*2\r\n$1\r\nQ\r\n*1\r\n$1\r\nx\r\n", 5, true, -6, "", ""},
        {"*2\r\n$1\r\nQ\r\n$16\r\n0123456789abcdef\r\n", 5, true, -5, "", ""},
        {"*2\r\n$5\r\nOTHER\r\n$1\r\nv\r\n", 5, true, 1, "v", "OTHER"},
        {"$2\r\nhi\r\n", 5, true, 2, "hi", "Q"},
        {"*2\r\n$1\r\nQ\r\n$1\r\nv\r\n", 0, true, 1, "v", "Q"},
        {"*3\r\n$1\r\nQ\r\n$1\r\nv\r\n$1\r\nw\r\n", 5, true, 0, "", ""},
        {"*1\r\n$1\r\nQ\r\n", 5, true, 0, "", ""},
        {"*-1\r\n", 5, true, 0, "", ""},
        {"+OK\r\n", 5, true, 0, "", ""},
        {"-ERR wrong type\r\n", 0, true, 0, "", ""},
        {":9\r\n", 0, true, 0, "", ""},
        {"$10\r\nabc", 0, true, -3, "", ""},
        {"?what\r\n", 0, true, -3, "", ""},
        {"", 0, true, -3, "", ""},
    };
    for (const auto& row : rows) {
        char buf[17] = {}, key[17] = {};
        EXPECT_EQ(against(peer, row.reply, [&](M& m) {
                      return m.list_recv("Q", buf, 16, row.timeout, row.want_key ? key : nullptr, 16);
                  }), row.rc) << row.reply;
        EXPECT_STREQ(buf, row.value) << row.reply;
        EXPECT_STREQ(key, row.key) << row.reply;
    }
    const auto commands = peer.take_commands();
    EXPECT_EQ(commands.front(), (std::vector<std::string>{"BRPOP", "Q", "5"}));
    EXPECT_EQ(commands.back(), (std::vector<std::string>{"RPOP", "Q"}));
}

TEST(ScriptedPeer, GetTakesEachReaderItsOwnReplyType)
{
    FakeRedis peer;
    // reply, then what each reader (int, unsigned long, float, text into 8
    // bytes) holds after it; their values before are 7, 9, 8 and "".
    const struct { const char* reply; int rc, i; unsigned long u; float f; const char* text; } rows[] = {
        {":42\r\n", 0, 42, 42, 8, ""},
        {":4294967301\r\n", 0, 5, 4294967301UL, 8, ""},
        {":-1\r\n", 0, -1, 18446744073709551615UL, 8, ""},
        {"$4\r\n2.5x\r\n", 0, 7, 9, 2.5f, "2.5x"},
        {"$7\r\n1234567\r\n", 0, 7, 9, 1234567, "1234567"},
        {"$8\r\n12345678\r\n", 0, 7, 9, 12345678, ""},
        {"*1\r\n$1\r\nx\r\n", 0, 7, 9, 8, ""},
        {"+OK\r\n", 0, 7, 9, 8, ""},
        {"-ERR\r\n", 0, 7, 9, 8, ""},
        {"$-1\r\n", 0, 7, 9, 8, ""},
        {"$3\r\nab", -8, 7, 9, 8, ""},
        {"", -8, 7, 9, 8, ""},
    };
    for (const auto& row : rows) {
        int i = 7;
        unsigned long u = 9;
        float f = 8;
        char text[9] = {};
        EXPECT_EQ(against(peer, row.reply, [&](M& m) { return m.get("k", &i); }), row.rc) << row.reply;
        EXPECT_EQ(against(peer, row.reply, [&](M& m) { return m.get("k", &u); }), row.rc) << row.reply;
        EXPECT_EQ(against(peer, row.reply, [&](M& m) { return m.get("k", &f); }), row.rc) << row.reply;
        EXPECT_EQ(against(peer, row.reply, [&](M& m) { return m.get("k", text, 8); }), row.rc) << row.reply;
        EXPECT_EQ(i, row.i) << row.reply;
        EXPECT_EQ(u, row.u) << row.reply;
        EXPECT_EQ(f, row.f) << row.reply;
        EXPECT_STREQ(text, row.text) << row.reply;
    }
    // Any reply counts; none gives the operation's own code.
    const std::vector<std::pair<int, std::function<int(M&)>>> ops = {
        {-7, [](M& m) { return m.set("k", 1); }}, {-3, [](M& m) { return m.list_size("L"); }},
        {-3, [](M& m) { return m.list_clear("L"); }}, {-2, [](M& m) { return m.bio_cmd_send("x"); }},
    };
    for (const auto& [code, op] : ops) {
        EXPECT_EQ(against(peer, "-ERR\r\n", op), 0);
        EXPECT_EQ(against(peer, ":12", op), code);
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
                                "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\none\r\n" +
                                "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n:2\r\n" +
                                "*3\r\n$7\r\nmessage\r\n:1\r\n$1\r\nz\r\n" +
                                "*3\r\n:7\r\n$1\r\nC\r\n$1\r\nx\r\n" +
                                "*3\r\n$7\r\nmassage\r\n$1\r\nC\r\n$1\r\nx\r\n" +
                                "*2\r\n$7\r\nmessage\r\n$1\r\nC\r\n" +
                                "*4\r\n$8\r\npmessage\r\n$1\r\n*\r\n$1\r\nC\r\n$1\r\ny\r\n" +
                                "*-1\r\n+OK\r\n-ERR\r\n$3\r\nmsg\r\n:5\r\n" +
                                "*3\r\n$7\r\nmessage\r\n$5\r\nOTHER\r\n$3\r\ntwo\r\n" +
                                "*3\r\n$7\r\nmessage\r\n$1\r\nC\r\n$3\r\nthr";
    FakeRedis peer;
    std::vector<std::string> got;
    EXPECT_EQ(against(peer, replies, [&](M& m) {
                  return m.subscribe("C", [&](const char* ch, const char* p, size_t n, void*) {
                      got.push_back(std::string(ch) + "=" + std::string(p, n));
                  });
              }), 0);
    EXPECT_EQ(got, (std::vector<std::string>{"C=one", "C=two"}));
    EXPECT_EQ(against(peer, "", [](M& m) { return m.subscribe("C", {}); }), -3);
}

// hiredis 0.14 has no bound on declared lengths.
#if HIREDIS_MAJOR >= 1
TEST(ScriptedPeer, HugeDeclaredArrayIsRefusedBeforeAnyAllocation)
{
    // An unbounded reader would reserve 16 GiB for the elements; a bounded
    // one refuses the length as a protocol error at once.
    FakeRedis peer;
    const std::vector<std::pair<int, std::function<int(M&)>>> rows = {
        {-3, [](M& m) { char b[8]; return m.list_recv("L", b, 8, 1, nullptr, 0); }},
        {-8, [](M& m) { char b[8]; return m.get("K", b, 8); }},
    };
    for (const auto& [expected, call] : rows) {
        int err = 0;
        EXPECT_EQ(against(peer, "*2147483647\r\n", [&](M& m) {
                      const int rc = call(m);
                      err = m.redis_context()->err;
                      return rc;
                  }), expected);
        EXPECT_EQ(err, REDIS_ERR_PROTOCOL);
    }
}
#endif
