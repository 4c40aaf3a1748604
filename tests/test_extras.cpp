// Subscription and the opt-in reconnect.
#include "bmessager.h"
#include "bsubscription.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

using bmsg_test::RedisServer;

TEST(MessagerExtras, ReconnectAfterRestartOnlyWhenAskedFor)
{
    RedisServer server;
    for (bool tcp : {false, true})
        for (bool on : {false, true}) {
            bMSG::Messager bus(tcp ? "127.0.0.1" : server.socket().c_str(), server.port(), 1);
            bus.set_reconnect(on);
            ASSERT_EQ(bus.set("k", "v"), 0);
            server.restart();
            EXPECT_EQ(bus.set("k", "v"), -7);
            EXPECT_EQ(bus.set("k", "v"), on ? 0 : -7) << tcp << on;
        }
}

TEST(Subscription, DeliversSeveralChannelsNothingAfterStopAndEndsWithItsServer)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    std::mutex lock;
    std::vector<std::string> got;
    const auto keep = [&](const char* ch, const char* p, size_t n, void*) {
        std::lock_guard<std::mutex> hold(lock);
        got.push_back(std::string(ch) + ":" + std::string(p, n));
    };
    const auto size = [&] { std::lock_guard<std::mutex> hold(lock); return got.size(); };
    EXPECT_EQ(bMSG::Subscription(server.socket().c_str(), 0, {}, keep).status(), -3);
    EXPECT_EQ(bMSG::Subscription("127.0.0.1", bmsg_test::free_port(), {"x"}, keep).status(), -1);
    { bMSG::Subscription idle("127.0.0.1", server.port(), {"quiet"}, keep); }  // stops with no message
    bMSG::Subscription sub(bus, {"one", "two"}, keep), orphan(bus, {"two"}, keep);
    ASSERT_TRUE(sub.status() == 0 && sub.running());
    EXPECT_EQ(bus.publish("one", "%s", "a") + bus.publish("two", "%s", "b"), 3);
    ASSERT_TRUE(bmsg_test::wait_until([&] { return size() == 3; }));
    sub.stop();
    EXPECT_FALSE(sub.running());
    EXPECT_EQ(bus.publish("one", "%s", "late"), 0);
    sub.stop();
    server.stop();
    EXPECT_TRUE(bmsg_test::wait_until([&] { return !orphan.running(); }));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{"one:a", "two:b", "two:b"}));
}
