// Segments over a device's life: restarted, second and late peers; the other processes are real.
#include "bimage.h"
#include "bmessager.h"
#include "bshmem.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

using BImage::Image;
using bmsg_test::redis_raw;

namespace {

std::string unique(const std::string& tag) { return tag + std::to_string(getpid()); }
std::string key(const std::string& m) { return "BIOMETRIC_SAMPLE_" + m; }
unsigned char pattern(uint32_t seed, int i) { return (seed * 2654435761u + i * 40503u) >> 13; }

// A square GRAY8 image: the seed in bytes 0-3, its pattern after them.
Image& paint(Image& image, uint32_t seed)
{
    for (int i = 0; i < image.count(); ++i)
        image.data[i] = pattern(seed, i);
    return memcpy(image.data, &seed, 4), image;
}

enum How { pop, peek, any, view, into };  // the vector recv, read, recv_any, view, recv_into

// One sample of m: 1 a whole image painted with `seed` (any seed when 0), 2
// one with other pixels, 0 null, or the view's / recv_into's code.
int take(bMSG::Messager& bus, How how, const std::string& m, uint32_t seed)
{
    char out[64];
    const std::vector<const char*> ms{m.c_str()};
    const auto check = [&](int w, int, BImage::ImageFormat, const unsigned char* p) {
        uint32_t s = seed;
        Image ref(w, w, BImage::GRAY8, nullptr);
        return memcmp(p, paint(ref, s ? s : (memcpy(&s, p, 4), s)).data, static_cast<size_t>(w) * w) ? 2 : 1;
    };
    int rc = 0;
    Image mine(1, 1, BImage::GRAY8, nullptr);
    if (how == view || how == into) {
        const int got = how == into ? bus.bio_sample_recv_into(ms, 1, mine, out, sizeof out)
                                    : bus.bio_sample_view(ms, 1, [&](int w, int h, BImage::ImageFormat f, const unsigned char* p) { rc = check(w, h, f, p); }, out, sizeof out);
        return got != 1 ? got : how == into ? check(mine.width, 0, mine.format, mine.data) : rc;
    }
    std::unique_ptr<Image> got(how == pop ? bus.bio_sample_recv(ms, 1, out, sizeof out)
                               : how == any ? bus.bio_sample_recv_any(ms, 1, out, sizeof out) : bus.bio_sample_read(m.c_str()));
    if (how == peek && got)
        bus.list_clear(key(m).c_str());
    return got ? check(got->width, 0, got->format, got->data) : 0;
}

} // namespace

// socket, modality, side, seed, seconds: with 0 seconds sends one side x side
// image, says "sent" and returns on a "QUIT" on list QUIT<modality>; else sends
// numbered images (never more than 8 queued) for that long.
BMSG_ROLE(send)
{
    bMSG::Messager bus(args.at(0).c_str(), 0, 1);
    const int side = std::stoi(args.at(2)), seconds = std::stoi(args.at(4));
    Image image(side, side, BImage::GRAY8, nullptr);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (uint32_t i = std::stoul(args.at(3)); seconds == 0 || std::chrono::steady_clock::now() < end; ++i) {
        while (bus.list_size(key(args[1]).c_str()) > 8)
            usleep(500);
        if (bus.bio_sample_send(args[1].c_str(), &paint(image, i)) != 0)
            return 1;
        char quit[8];
        if (seconds == 0 && printf("sent\n") > 0 && fflush(stdout) == 0)
            return bus.list_recv(("QUIT" + args[1]).c_str(), quit, sizeof quit, 30, nullptr, 0) != 4;
    }
    return 0;
}

bmsg_test::Child started(const bmsg_test::RedisServer& s, const std::string& m, const char* side, uint32_t seed, const char* seconds = "0")
{
    bmsg_test::Child c = bmsg_test::spawn_role("send", {s.socket(), m, side, std::to_string(seed), seconds});
    EXPECT_TRUE(*seconds != '0' || bmsg_test::wait_until([&] { return c.out() == "sent\n"; })) << c.err();
    return c;
}

TEST(SampleLifecycle, ALongLivedReceiverGetsWholeImagesOfRestartedAndOfTwoConcurrentSendersWithEveryReceiver)
{
    bmsg_test::RedisServer server;
    const std::string m = unique("RESTART");
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    uint32_t seed = 1;
    for (How how : {pop, peek, any, view, into})
        for (int restart = 0; restart < 2; ++restart, ++seed) {
            bmsg_test::Child sender = started(server, m, "16", seed);  // the shape of the last one
            EXPECT_EQ(take(bus, how, m, seed), 1) << how << " after restart " << restart;
            redis_raw(server, "LPUSH QUIT%s QUIT", m.c_str());
            EXPECT_EQ(sender.wait(), 0) << sender.err();
        }
    bmsg_test::Child a = started(server, m, "16", 1600000, "2"), b = started(server, m, "24", 2400000, "2");
    int whole = 0;
    for (int i = 0; !a.ended() || !b.ended() || i % 5; ++i) {
        const int rc = take(bus, static_cast<How>(i % 5), m, 0);
        EXPECT_TRUE(rc == 1 || rc <= 0) << "a mixed image, receiver " << i % 5;
        whole += rc == 1;
    }
    EXPECT_TRUE(a.wait() == 0 && b.wait() == 0 && whole > 0) << a.err() << b.err();
}

TEST(SampleLifecycle, SecondSendersTakeAPeersPlainMutexAsItIsNeverShrinkAndGrowUnderTheLock)
{
    bmsg_test::RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = unique("PLAIN"), name = "/" + key(m);
    const int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);  // a peer's creator
    auto* mutex = static_cast<pthread_mutex_t*>(ftruncate(fd, 148) ? MAP_FAILED : mmap(nullptr, 148, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    pthread_mutexattr_t plain;
    ASSERT_TRUE(mutex != MAP_FAILED && pthread_mutexattr_init(&plain) == 0 &&
                pthread_mutexattr_setpshared(&plain, PTHREAD_PROCESS_SHARED) == 0 && pthread_mutex_init(mutex, &plain) == 0);
    ASSERT_EQ(pthread_mutex_lock(mutex), 0);
    bmsg_test::Child second = bmsg_test::spawn_role("send", {server.socket(), m, "8", "5", "0"});
    usleep(300000);
    EXPECT_EQ(second.out(), "") << "the attach waits for the lock";
    pthread_mutex_unlock(mutex);
    ASSERT_TRUE(bmsg_test::wait_until([&] { return second.out() == "sent\n"; })) << second.err();
    struct stat st;
    EXPECT_TRUE(take(bus, view, m, 5) == 1 && fstat(fd, &st) == 0 && st.st_size == 148) << "never shrunk";
    bmsg_test::Child third = started(server, m, "40", 6);
    EXPECT_TRUE(fstat(fd, &st) == 0 && st.st_size == 1680 && take(bus, pop, m, 6) == 1) << "grown, and followed by a receiver";
    redis_raw(server, "LPUSH QUIT%s QUIT QUIT", m.c_str());
    EXPECT_TRUE(second.wait() == 0 && third.wait() == 0 && bMSG::SharedMemory(name, 0, false).addr) << "only the creator unlinks";
    shm_unlink(name.c_str());
    close(fd);
}

TEST(SampleLifecycle, ALateReceiverGetsNothingInsteadOfAMixRecvIntoLeavesTheImageOnFailureBackpressureWaits)
{
    bmsg_test::RedisServer server;
    const std::string m = unique("LATE"), none = unique("NONE");
    bMSG::Messager sender(server.socket().c_str(), 0, 1), bus(server.socket().c_str(), 0, 1);
    Image big(64, 64, BImage::GRAY8, nullptr), small(10, 10, BImage::GRAY8, nullptr);
    for (How how : {pop, peek, any, view, into}) {
        ASSERT_TRUE(sender.bio_sample_send(m.c_str(), &paint(big, 64)) == 0 && sender.bio_sample_send(m.c_str(), &paint(small, 10)) == 0);
        const auto c = bmsg_test::run_captured([&] { return take(bus, how, m, 64); });
        EXPECT_TRUE(c.status == (how >= view ? -11 : 0) && c.out.find(how >= view ? "" : "shared memory holds another image") == 0) << how;
        EXPECT_EQ(take(bus, how, m, 10), 1) << how;
    }
    const std::string junk(32, 'J'), h64(reinterpret_cast<const char*>(big.format_header()), 32);
    const struct { std::string m, pushed; int len, rc; } rows[] = {  // the image is longer for -9, -11, -5
        {m, "", 64, 0}, {m, junk, 64, -6}, {none, h64, 64, -9}, {m, h64, 64, -11}, {m, h64, 2, -5}};
    for (const auto& row : rows) {
        ASSERT_TRUE(sender.bio_sample_send(m.c_str(), &small) == 0 && bus.list_clear(key(m).c_str()) == 1);
        if (!row.pushed.empty())
            redis_raw(server, "LPUSH %s %b", key(row.m).c_str(), row.pushed.data(), row.pushed.size());
        unsigned char mine[16];
        Image image(4, 4, BImage::GRAY8, static_cast<unsigned char*>(memset(mine, 'x', sizeof mine)));
        char out[64];
        EXPECT_EQ(bus.bio_sample_recv_into({row.m.c_str()}, 1, image, out, row.len), row.rc);
        EXPECT_TRUE(image.data == mine && !image.buffer && image.width == 4 && image.height == 4 &&
                    image.format == BImage::GRAY8 && std::string(16, 'x') == std::string(mine, mine + 16)) << row.rc;
    }
    ASSERT_EQ(sender.bio_sample_send(m.c_str(), &paint(small, 2)), 0);
    sender.set_sample_backpressure(50);
    EXPECT_EQ(sender.bio_sample_send(m.c_str(), &paint(big, 1)), -12);
    EXPECT_EQ(sender.bio_sample_loan(m.c_str(), 16, 16, BImage::GRAY8, [](unsigned char*, size_t) { ADD_FAILURE() << "filled"; }), -12);
    EXPECT_EQ(take(bus, view, m, 2), 1) << "nothing was written";
    sender.set_sample_backpressure(10000);
    ASSERT_EQ(sender.bio_sample_send(m.c_str(), &big), 0);
    std::thread drain([&] { usleep(200000); EXPECT_EQ(redis_raw(server, "DEL %s", key(m).c_str()), "1"); });
    EXPECT_EQ(sender.bio_sample_send(m.c_str(), &small), 0) << "sent once the list was drained";
    drain.join();
    EXPECT_EQ(take(bus, pop, m, 2), 1);
}
