// Subscription, opt-in reconnect, segment mode and the codes of a Messager
// without a server.
#include "bimage.h"
#include "bmessager.h"
#include "bsubscription.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using bmsg_test::RedisServer;

namespace {

const auto no_fill = [](unsigned char*, size_t) {};

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

TEST(MessagerExtras, SegmentModeIsExactWhateverTheUmask)
{
    const struct { mode_t asked, umask, expected; } rows[] = {
        {0, 022, 0644}, {0, 0, 0666}, {0600, 0, 0600}, {0660, 077, 0660}, {0640, 0, 0640}};
    RedisServer server;
    for (const auto& row : rows) {
        const mode_t saved = umask(row.umask);
        const std::string m = "mode" + std::to_string(row.asked) + "_" + std::to_string(getpid());
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 1);
            bus.set_segment_mode(row.asked);
            ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, no_fill), 0);
            struct stat st;
            ASSERT_EQ(stat(("/dev/shm/BIOMETRIC_SAMPLE_" + m).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, row.expected) << std::oct << row.asked << " " << row.umask;
        }
        umask(saved);
    }
}

TEST(MessagerExtras, LoanAndViewCodesAndLocksFreedOnEveryExit)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = "loan" + std::to_string(getpid()), key = "BIOMETRIC_SAMPLE_" + m;
    int fills = 0;
    const auto fill = [&](unsigned char* p, size_t n) { ++fills; for (size_t i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(i * 7); };
    const auto odd = static_cast<BImage::ImageFormat>(10);
    EXPECT_EQ(bus.bio_sample_loan(m.c_str(), 0, 5, BImage::GRAY8, fill), -10);
    EXPECT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, odd, fill), -10);
    EXPECT_EQ(bus.bio_sample_loan("a b", 4, 4, BImage::GRAY8, fill), -2);
    EXPECT_THROW(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, [](unsigned char*, size_t) { throw 1; }), int);
    EXPECT_EQ(bmsg_test::thrown_by([&] { bus.bio_sample_loan(m.c_str(), 5, 4, BImage::GRAY8, fill); }),
              "Data size exceeds shared memory size: /" + key + " 52+0>96-48");
    EXPECT_EQ(fills, 0);
    EXPECT_EQ(bus.list_size(key.c_str()), 0) << "nothing pushed";
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, fill), 0);
    const auto throws = [](int, int, BImage::ImageFormat, const unsigned char*) { throw 1; };
    EXPECT_THROW(bus.bio_sample_view({m.c_str()}, 1, throws), int);
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 2, 8, BImage::GRAY8, fill), 0);
    std::string seen;
    EXPECT_EQ(bus.bio_sample_view({m.c_str()}, 1, [&](int w, int h, BImage::ImageFormat f, const unsigned char* p) {
        seen = std::to_string(w) + "x" + std::to_string(h) + "/" + std::to_string(f) + ":" + std::to_string(p[15]);
    }), 1);
    EXPECT_EQ(seen, "2x8/0:105");
    EXPECT_EQ(bus.list_size(key.c_str()), 0);

    BImage::Image image(4, 4, BImage::GRAY8, nullptr);
    bMSG::Messager nowhere("127.0.0.1", bmsg_test::free_port(), 1);
    EXPECT_EQ(nowhere.bio_sample_send(m.c_str(), &image), -1);
    EXPECT_EQ(nowhere.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, fill), -1);
    EXPECT_EQ(nowhere.bio_sample_recv_into({m.c_str()}, 1, image), -1);
    EXPECT_TRUE(nowhere.segments.empty());
}

TEST(MessagerExtras, IntoReusesALargeEnoughBufferAndNeverFreesCallerData)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = "into" + std::to_string(getpid());
    const auto loan = [&](int w, int h, unsigned char v) {
        return bus.bio_sample_loan(m.c_str(), w, h, BImage::GRAY8, [v](unsigned char* p, size_t n) { memset(p, v, n); });
    };
    unsigned char mine[16 * 16] = {};
    BImage::Image image(16, 16, BImage::GRAY8, mine);
    ASSERT_EQ(loan(32, 32, 9), 0);  // the segment is made for the largest image
    ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, image), 1);
    EXPECT_TRUE(image.data != mine && image.buffer == image.data && image.width == 32 && mine[0] == 0);
    EXPECT_TRUE(image.data[0] == 9 && image.data[1023] == 9);
    const unsigned char* grown = image.data;
    ASSERT_EQ(loan(16, 8, 2), 0);
    ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, image), 1);
    EXPECT_TRUE(image.data == grown && image.height == 8 && image.data[127] == 2 && image.data[128] == 9);
    BImage::Image small(16, 16, BImage::GRAY8, mine);
    ASSERT_EQ(loan(8, 4, 3), 0);
    ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, small), 1);
    EXPECT_TRUE(small.data == mine && !small.buffer && small.width == 8 && mine[31] == 3 && mine[32] == 0);
}

TEST(Subscription, DeliversSeveralChannelsAndNothingAfterStop)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    std::mutex lock;
    std::vector<std::string> got;
    bMSG::Subscription sub(bus, {"one", "two"}, [&](const char* ch, const char* p, size_t n, void*) {
        std::lock_guard<std::mutex> hold(lock);
        got.push_back(std::string(ch) + ":" + std::string(p, n));
    });
    ASSERT_EQ(sub.status(), 0);
    EXPECT_EQ(bus.publish("one", "%s", "a"), 1);
    EXPECT_EQ(bus.publish("two", "%s", "b"), 1);
    ASSERT_TRUE(bmsg_test::wait_until([&] {
        std::lock_guard<std::mutex> hold(lock);
        return got.size() == 2;
    }));
    sub.stop();
    EXPECT_FALSE(sub.running());
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "one", 0));
    EXPECT_EQ(bus.publish("one", "%s", "late"), 0);
    sub.stop();
    EXPECT_EQ(got, (std::vector<std::string>{"one:a", "two:b"}));
}

TEST(Subscription, StopsWithoutMessagesAndEndsWithItsServer)
{
    RedisServer server;
    std::atomic<int> calls{0};
    const auto count = [&](const char*, const char*, size_t, void*) { ++calls; };
    EXPECT_EQ(bMSG::Subscription(server.socket().c_str(), 0, {}, count).status(), -3);
    {
        bMSG::Subscription idle("127.0.0.1", server.port(), {"quiet"}, count);
        ASSERT_TRUE(idle.running());
    }  // the destructor returns with nothing published
    bMSG::Subscription orphan(server.socket().c_str(), 0, {"quiet"}, count);
    ASSERT_TRUE(orphan.running());
    server.stop();
    EXPECT_TRUE(bmsg_test::wait_until([&] { return !orphan.running(); }));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(bMSG::Subscription("127.0.0.1", bmsg_test::free_port(), {"x"}, count).status(), -1);
}

} // namespace
