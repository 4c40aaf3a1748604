// The additions beside the described operations: several-modality receive,
// loan and view, receive into the caller's image, Subscription, opt-in
// reconnect and segment mode.
#include "bimage.h"
#include "bmessager.h"
#include "bsubscription.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

using BImage::Image;
using bmsg_test::RedisServer;

namespace {

constexpr int W = 64, H = 48;

unsigned char pattern(int seed, int i)
{
    return static_cast<unsigned char>((seed * 2654435761u + i * 40503u) >> 13);
}

void paint(unsigned char* p, size_t n, int seed)
{
    for (size_t i = 0; i < n; ++i)
        p[i] = pattern(seed, static_cast<int>(i));
}

bool holds(const unsigned char* p, int n, int seed)
{
    for (int i = 0; i < n; ++i)
        if (p[i] != pattern(seed, i))
            return false;
    return true;
}

std::string tagged(const std::string& m)
{
    return m + "_x" + std::to_string(getpid());
}

// socket, "send" or "loan", modalities: for each modality in turn waits for
// a "go" on its list, then sends a 64x48 GRAY8 image of seed = its index;
// returns after one more "go", so its segments outlive the receives.
BMSG_ROLE(sender)
{
    bMSG::Messager bus(args.at(0).c_str(), 0, 1);
    char go[8];
    for (size_t i = 2; i <= args.size(); ++i) {
        if (bus.list_recv(("go" + args[1]).c_str(), go, sizeof go, 30, nullptr, 0) != 2)
            return 1;
        if (i == args.size())
            return 0;
        const int seed = static_cast<int>(i - 2);
        Image image(W, H, BImage::GRAY8, nullptr);
        paint(image.data, W * H, seed);
        if ((args[1] == "loan" ? bus.bio_sample_loan(args[i].c_str(), W, H, BImage::GRAY8,
                                                     [&](unsigned char* p, size_t n) {
                                                         paint(p, n, seed);
                                                     })
                               : bus.bio_sample_send(args[i].c_str(), &image)) != 0)
            return 2;
    }
    return 0;
}

enum class Receive { any, view, into, described };

struct CrossRow {
    const char* send;  // how the other process sends
    Receive receive;
    std::vector<std::string> order;  // its modalities, in the order pushed
};

TEST(SampleExtras, OtherProcessesPushInMixedOrder)
{
    const CrossRow rows[] = {
        {"send", Receive::any, {"a", "b"}},      {"send", Receive::any, {"c", "a", "b"}},
        {"send", Receive::view, {"b", "c", "a"}}, {"loan", Receive::described, {"a", "b"}},
        {"loan", Receive::into, {"c", "b", "a"}}, {"loan", Receive::view, {"b", "a"}}};
    RedisServer server;
    const std::vector<std::string> all{tagged("a"), tagged("b"), tagged("c")};
    const std::vector<const char*> keys{all[0].c_str(), all[1].c_str(), all[2].c_str()};
    for (const CrossRow& row : rows) {
        std::vector<std::string> args{server.socket(), row.send};
        for (const std::string& m : row.order)
            args.push_back(tagged(m));
        bmsg_test::Child peer = bmsg_test::spawn_role("sender", args);
        bMSG::Messager bus(server.socket().c_str(), 0, 1);
        Image into(0, 0, BImage::GRAY8, nullptr);
        for (size_t i = 0; i < row.order.size(); ++i) {
            const std::string want = tagged(row.order[i]);
            bus.list_send(("go" + std::string(row.send)).c_str(), "%s", "go");
            char out[32] = "";
            bool pixels = false;
            if (row.receive == Receive::any || row.receive == Receive::described) {
                Image* got = row.receive == Receive::any
                                 ? bus.bio_sample_recv_any(keys, 10, out, sizeof out)
                                 : bus.bio_sample_recv({want.c_str()}, 10, out, sizeof out);
                pixels = got && got->width == W && holds(got->data, got->count(), int(i));
                delete got;
            } else if (row.receive == Receive::view) {
                const auto view = [&](int w, int h, BImage::ImageFormat f, const unsigned char* p) {
                    pixels = w == W && h == H && f == BImage::GRAY8 && holds(p, W * H, int(i));
                };
                EXPECT_EQ(bus.bio_sample_view(keys, 10, view, out, sizeof out), 1);
            } else {
                EXPECT_EQ(bus.bio_sample_recv_into(keys, 10, into, out, sizeof out), 1);
                pixels = into.width == W && holds(into.data, into.count(), int(i));
            }
            EXPECT_TRUE(out == want && pixels) << (&row - rows) << " " << i;
        }
        bus.list_send(("go" + std::string(row.send)).c_str(), "%s", "go");
        EXPECT_EQ(peer.wait(), 0) << peer.err();
    }
}

TEST(SampleExtras, IntoReusesAndGrows)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = tagged("into");
    auto send = [&](int w, int h, int seed) {
        return bus.bio_sample_loan(m.c_str(), w, h, BImage::GRAY8,
                                   [&](unsigned char* p, size_t n) { paint(p, n, seed); });
    };
    unsigned char mine[16 * 16];
    Image image(16, 16, BImage::GRAY8, mine);
    ASSERT_EQ(send(32, 32, 9), 0);  // the segment is made for the largest image
    ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, image), 1);
    ASSERT_NE(image.data, mine);  // grown: caller data left alone
    EXPECT_TRUE(image.buffer == image.data && holds(image.data, 32 * 32, 9));
    const unsigned char* grown = image.data;
    for (int seed : {1, 2}) {
        ASSERT_EQ(send(32, 32, seed), 0);
        ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, image), 1);
        EXPECT_EQ(image.data, grown);
        EXPECT_TRUE(holds(image.data, 32 * 32, seed));
    }
    Image small(16, 16, BImage::GRAY8, mine);
    ASSERT_EQ(send(8, 4, 3), 0);
    ASSERT_EQ(bus.bio_sample_recv_into({m.c_str()}, 5, small), 1);
    EXPECT_TRUE(small.data == mine && small.buffer == nullptr && small.width == 8 &&
                small.height == 4 && holds(mine, 32, 3));
}

TEST(SampleExtras, FailuresAndThrowingFunctionsLeaveTheLockFree)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = tagged("codes"), key = "BIOMETRIC_SAMPLE_" + m;
    const auto noop = [](unsigned char*, size_t) {};
    EXPECT_EQ(bus.bio_sample_loan(m.c_str(), 0, 5, BImage::GRAY8, noop), -10);
    EXPECT_EQ(bus.bio_sample_loan("a b", 4, 4, BImage::GRAY8, noop), -2);
    EXPECT_THROW(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8,
                                     [](unsigned char*, size_t) { throw 1; }),
                 int);
    EXPECT_EQ(bus.list_size(key.c_str()), 0);
    unsigned char px[16 * 16];
    Image big(16, 16, BImage::GRAY8, px);
    const std::string header(reinterpret_cast<const char*>(big.format_header()), 32);
    const auto view = [](int, int, BImage::ImageFormat, const unsigned char*) {};
    char out[4];
    const struct {
        std::string pushed;  // empty: a loaned 4x4 image
        int len, rc;
    } rows[] = {{"xxx", 0, -6}, {header, 0, -9}, {"", 2, -5}};
    for (const auto& row : rows) {
        if (row.pushed.empty())
            ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, noop), 0);
        else
            bus.list_send(key.c_str(), "%b", row.pushed.data(), row.pushed.size());
        EXPECT_EQ(bus.bio_sample_view({m.c_str()}, 1, view, row.len ? out : nullptr, row.len),
                  row.rc);
    }
    EXPECT_EQ(bus.bio_sample_view({m.c_str()}, 1, view), 0);
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, noop), 0);
    const auto throws = [](int, int, BImage::ImageFormat, const unsigned char*) { throw 1; };
    EXPECT_THROW(bus.bio_sample_view({m.c_str()}, 1, throws), int);
    // Both locks were released: the next loan and view go through.
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, noop), 0);
    EXPECT_EQ(bus.bio_sample_view({m.c_str()}, 1, view), 1);
}

TEST(SampleExtras, SegmentModeWhateverTheUmask)
{
    const struct {
        mode_t asked, umask, expected;
    } rows[] = {{0, 022, 0644}, {0600, 0, 0600}, {0660, 077, 0660}, {0640, 0, 0640}};
    RedisServer server;
    for (const auto& row : rows) {
        const mode_t saved = umask(row.umask);
        const std::string m = tagged("mode" + std::to_string(row.asked));
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 1);
            bus.set_segment_mode(row.asked);
            ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, [](auto, auto) {}), 0);
            struct stat st;
            ASSERT_EQ(stat(("/dev/shm/BIOMETRIC_SAMPLE_" + m).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, row.expected) << std::oct << row.asked;
        }
        umask(saved);
    }
}

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

TEST(Subscription, DeliversSeveralChannelsAndStops)
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
    EXPECT_EQ(got, (std::vector<std::string>{"one:a", "two:b"}));  // thread joined
}

TEST(Subscription, StopsWithoutMessagesAndEndsWithItsServer)
{
    RedisServer server;
    std::atomic<int> calls{0};
    const auto count = [&](const char*, const char*, size_t, void*) { ++calls; };
    EXPECT_EQ(bMSG::Subscription(server.socket().c_str(), 0, {}, count).status(), -3);
    {
        bMSG::Subscription idle(server.socket().c_str(), 0, {"quiet"}, count);
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
