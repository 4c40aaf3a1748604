// Biometric samples: the image header, the sample operations, other processes
// sending (restarted, second and late peers), Subscription and the opt-in reconnect.
#include "bimage.h"
#include "bmessager.h"
#include "bshmem.h"
#include "bsubscription.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

using BImage::Image;
using bmsg_test::RedisServer;
using bmsg_test::redis_raw;
using bmsg_test::unique;
using ImagePtr = std::unique_ptr<Image>;

// An allocator that has no memory for blocks of `refused` bytes.
static std::atomic<size_t> refused{0};
extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept
{
    static const auto real = reinterpret_cast<decltype(&posix_memalign)>(dlsym(RTLD_NEXT, "posix_memalign"));
    return refused && size == refused ? ENOMEM : real(block, alignment, size);
}

namespace {

std::string key(const std::string& m) { return "BIOMETRIC_SAMPLE_" + m; }
std::string str(const unsigned char* p, size_t n) { return std::string(reinterpret_cast<const char*>(p), n); }
bool segment_exists(const std::string& m) { return bMSG::SharedMemory("/" + key(m), 0, false).addr; }
long queued(const RedisServer& s, const std::string& m) { return std::stol(redis_raw(s, "LLEN %s", key(m).c_str())); }
unsigned char pattern(uint32_t seed, size_t i) { return (seed * 2654435761u + i * 40503u) >> 13; }
void paint(unsigned char* p, size_t n, uint32_t seed) { for (size_t i = 0; i < n; ++i) p[i] = pattern(seed, i); }
// A GRAY8 image: the seed in bytes 0-3, its pattern after them.
Image& stamp(Image& image, uint32_t seed) { return paint(image.data, image.count(), seed), memcpy(image.data, &seed, 4), image; }

bool holds(const unsigned char* p, size_t n, uint32_t seed, size_t from = 0)
{
    while (from < n && p[from] == pattern(seed, from))
        ++from;
    return n > 0 && from == n;
}

// Whether c caught a report.
bool reported(const bmsg_test::Captured& c) { return !c.err.empty() && !c.out.empty(); }

bmsg_test::Captured with_bus(const RedisServer& s, bool tcp, const std::function<int(bMSG::Messager&)>& op)
{
    return bmsg_test::run_captured([&] {
        bMSG::Messager bus(tcp ? "127.0.0.1" : s.socket().c_str(), s.port(), 1);
        return op(bus);
    });
}

// The vector recv, recv_any, view, recv_into, read, the one-modality recv.
enum How { pop, any, view, into, peek, single };
BImage::ImageFormat took;  // the format of the last image take() saw

// Takes one sample of m: 1 a whole image stamped with `seed` (any seed when 0), 2 one with
// other pixels, 0 null, or the view's / recv_into's code.
int take(bMSG::Messager& bus, How how, const std::string& m, uint32_t seed = 0, int len = 64)
{
    char out[64];
    const std::vector<const char*> ms{m.c_str()};
    int rc = 0;
    const auto check = [&](int w, int h, BImage::ImageFormat f, const unsigned char* p) {
        uint32_t s = seed;
        unsigned char b;
        took = f;
        rc = (s || memcpy(&s, p, 4)) && !memcmp(p, &s, 4) && holds(p, Image(w, h, f, &b).count(), s, 4) ? 1 : 2;
    };
    Image mine(1, 1, BImage::GRAY8, nullptr);
    if (how == view || how == into) {
        const int got = how == view ? bus.bio_sample_view(ms, 1, check, out, len) : bus.bio_sample_recv_into(ms, 1, mine, out, len);
        return got != 1 ? got : how == view ? rc : (check(mine.width, mine.height, mine.format, mine.data), mine.buffer == mine.data ? rc : 3);
    }
    ImagePtr got(how == pop ? bus.bio_sample_recv(ms, 1, out, len) : how == any ? bus.bio_sample_recv_any(ms, 1, out, len)
                 : how == peek ? bus.bio_sample_read(m.c_str()) : bus.bio_sample_recv(m.c_str(), 1));
    if (how == peek && got)
        bus.list_clear(key(m).c_str());
    return got ? (check(got->width, got->height, got->format, got->data), rc) : 0;
}

} // namespace

TEST(ImageHeader, FixedLayoutAndOnlyWholeHeadersParse)
{
    unsigned char h[32] = {'B', 'I', 'M', 'G', 1, 0, 32, 0, 128, 2, 0, 0, 224, 1, 0, 0,
                           1, 0, 0, 0, 0, 16, 14, 0, 0, 0, 0, 0, 219, 247, 222, 50};
    EXPECT_EQ(str(Image(640, 480, BImage::RGB24, nullptr).format_header(), 32), str(h, 32));
    unsigned int w = 1, ht = 2;
    unsigned long size = 3;  auto f = BImage::NV12;
    EXPECT_EQ(Image::parse_image_header(nullptr, w, ht, size, f), 0);
    for (int i = 0; i < 32; h[i++] ^= 0x10) {
        h[i] ^= 0x10;
        EXPECT_EQ(Image::parse_image_header(h, w, ht, size, f), 0) << "byte " << i;
    }
    EXPECT_TRUE(w == 1 && ht == 2 && size == 3 && f == BImage::NV12) << "outputs untouched";
    ASSERT_EQ(Image::parse_image_header(h, w, ht, size, f), 1);
    EXPECT_TRUE(w == 640 && ht == 480 && size == 921600 && f == BImage::RGB24);
}

TEST(SampleSend, CodesSegmentLayoutDescriptorSizeLimitAndTruncation)
{
    RedisServer server;
    const std::string m = unique("SEND"), blank = m + " X", none = m + "NONE";
    auto bus = std::make_unique<bMSG::Messager>(server.socket().c_str(), 0, 1);
    Image image(32, 16, BImage::YUYV, nullptr), emptied(4, 4, BImage::GRAY8, nullptr), wider(33, 16, BImage::YUYV, nullptr), unknown(4, 4, BImage::ImageFormat(10), nullptr);
    paint(image.data, 1024, 7);
    emptied.data = nullptr;
    const struct { const std::string& m; Image* image; int rc; } rows[] = {
        {m, nullptr, -10}, {m, &emptied, -10}, {blank, &image, -2}, {none, &unknown, 0}};  // no pixels: only the header
    for (const auto& row : rows)
        EXPECT_EQ(bus->bio_sample_send(row.m.c_str(), row.image), row.rc) << row.m;
    EXPECT_FALSE(segment_exists(m) || segment_exists(blank));
    ASSERT_TRUE(bus->bio_sample_send(m.c_str(), &image) == 0 && bus->bio_sample_send(m.c_str(), &image) == 0);
    const std::string header = str(image.format_header(), 32);
    EXPECT_EQ(redis_raw(server, "LRANGE %s 0 -1", key(m).c_str()), header + "\n" + header);
    bMSG::SharedMemory peer("/" + key(m), 1024 + 32, false);
    ASSERT_NE(peer.addr, nullptr);
    EXPECT_EQ(str(static_cast<unsigned char*>(peer.addr) + 48, 32), header);
    EXPECT_TRUE(holds(static_cast<unsigned char*>(peer.addr) + 80, 1024, 7));
    EXPECT_EQ(bMSG::SharedMemory("/" + key(m), 1024 + 33, false).addr, nullptr);
    bMSG::Messager fresh(server.socket().c_str(), 0, 1);
    ASSERT_EQ(fresh.list_clear(key(m).c_str()), 1);
    EXPECT_EQ(bus->bio_sample_send(m.c_str(), &stamp(wider, 9)), 0);
    EXPECT_EQ(take(fresh, pop, m, 9), 1) << "grown, and followed";
    rlimit was{}, low{4096, 0};  // a segment that cannot grow (here past the file size limit; on the device, a full /dev/shm)
    const bool limited = !getrlimit(RLIMIT_FSIZE, &was) && signal(SIGXFSZ, SIG_IGN) != SIG_ERR && !setrlimit(RLIMIT_FSIZE, &(low.rlim_max = was.rlim_max, low));
    EXPECT_TRUE(limited && bus->bio_sample_send(m.c_str(), std::make_unique<Image>(128, 128, BImage::GRAY8, nullptr).get()) == -13 && !setrlimit(RLIMIT_FSIZE, &was) && queued(server, m) == 0);

    // Cut under a receiver that mapped it, to its mutex or to nothing: invalid (no SIGBUS) until its owner sends again.
    char out[64];
    for (int how : {2, 0, 3}) {  // 2: a second sender comes after the cut
        ASSERT_EQ(bus->bio_sample_send(m.c_str(), &image), 0);  // restores what the last round cut
        ImagePtr mapped(fresh.bio_sample_recv({m.c_str()}, 5, out, sizeof out));
        EXPECT_TRUE(mapped && holds(mapped->data, 1024, 7));
        const int fd = shm_open(("/" + key(m)).c_str(), O_RDWR, 0);
        ASSERT_TRUE(bus->bio_sample_send(m.c_str(), &image) == 0 && fd >= 0 && ftruncate(fd, how == 3 ? 0 : 48) == 0);
        close(fd);
        const auto c = bmsg_test::run_captured([&] { return take(fresh, how == 3 ? view : pop, m); });
        EXPECT_EQ((std::pair<bool, int>(reported(c), c.status)), (std::pair<bool, int>(how != 3, how == 3 ? -9 : 0)));
        EXPECT_TRUE(how != 2 || bMSG::Messager(server.socket().c_str(), 0, 1).bio_sample_send(m.c_str(), &image) == 0) << "a second sender attaches at once";
    }
    bus.reset();  // a segment cut under its creator is still its creator's to remove
    EXPECT_TRUE(shm_open(("/" + key(m)).c_str(), O_RDONLY, 0) == -1 && errno == ENOENT);
}

TEST(SampleReceive, FailuresOfEveryReceiverAndTheReaderReportOrReturnTheirCode)
{
    RedisServer server;
    const std::string g = unique("GARBAGE"), o = unique("ORPHAN"), s = unique("SMALL");
    bMSG::Messager sender(server.socket().c_str(), 0, 1);
    Image small(8, 8, BImage::GRAY8, nullptr), big(64, 64, BImage::GRAY8, nullptr);
    ASSERT_EQ(sender.bio_sample_send(s.c_str(), &stamp(small, 8)), 0);
    redis_raw(server, "DEL %s", key(s).c_str());
    const std::string h8 = str(small.format_header(), 32), h64 = str(big.format_header(), 32);
    const int cut = static_cast<int>(s.size());
    // The view's code; the others report every failure (the one-modality form writes no modality).
    const struct { std::string m, pushed; int len, view; } rows[] = {
        {g, std::string(32, 'Z'), 64, -6}, {g, h8 + "x", 64, -6}, {g, "", 64, -6}, {o, h64, 64, -9},
        {s, h64, 64, -9}, {s, h8, cut, -5}, {s, h8, 64, 1}, {g, "(nothing)", 64, 0}};
    for (const auto& row : rows)
        for (How how : {pop, any, view, single}) {  // odd ones over TCP
            if (row.view != 0)
                redis_raw(server, "LPUSH %s %b", key(row.m).c_str(), row.pushed.data(), row.pushed.size());
            const auto c = with_bus(server, how & 1, [&](bMSG::Messager& bus) { return take(bus, how, row.m, 0, row.len); });
            const int rc = how == single && row.view == -5 ? 1 : row.view;
            EXPECT_EQ(reported(c), how != view && rc < 0) << (&row - rows) << how;
            EXPECT_EQ(c.status, how == view ? rc : rc == 1) << (&row - rows) << how;
            EXPECT_EQ(queued(server, row.m), 0);
        }
    EXPECT_TRUE((redis_raw(server, "LPUSH %s %b", key(s).c_str(), h64.data(), h64.size()), take(sender, view, s)) == -9 && segment_exists(s)) << "kept";
    {  // Its name removed and taken by a second sender: the first follows, and no longer owns the name. A third goes on
       // sending after the second, the creator, ended: it makes the segment anew.
        auto second = std::make_unique<bMSG::Messager>(server.socket().c_str(), 0, 1), first = std::make_unique<bMSG::Messager>(server.socket().c_str(), 0, 1);
        ASSERT_TRUE(first->bio_sample_send(o.c_str(), &small) == 0 && first->list_clear(key(o).c_str()) == 1 && !shm_unlink(("/" + key(o)).c_str()));
        ASSERT_TRUE(second->bio_sample_send(o.c_str(), &stamp(big, 3)) == 0 && take(*first, view, o, 3) == 1);
        bMSG::Messager third(server.socket().c_str(), 0, 1);
        EXPECT_TRUE((first.reset(), segment_exists(o)) && third.bio_sample_send(o.c_str(), &stamp(big, 5)) == 0 && take(sender, view, o, 5) == 1);
        EXPECT_TRUE((second.reset(), !segment_exists(o)) && third.bio_sample_send(o.c_str(), &stamp(big, 6)) == 0 && take(sender, view, o, 6) == 1);
    }
    char out[8] = "none";  // no modality: nothing to wait on
    EXPECT_TRUE(!sender.bio_sample_recv(std::vector<const char*>{}, 0, out, sizeof out) && !sender.bio_sample_view({}, 0, nullptr));

    // The reader peeks, reports, and drops only a descriptor whose segment is gone.
    Image image(16, 8, BImage::GRAY8, nullptr);
    paint(image.data, 128, 5);
    const std::string empty = unique("EMPTY"), peek = unique("PEEK");
    const struct { std::string m; const char* command; std::string value; int status, left; } reads[] = {
        {empty, nullptr, "", 0, 0}, {peek, "send", "", 1, 2}, {unique("JUNK"), "LPUSH %s %b", std::string(32, 'J'), 0, 2},
        {unique("ORPHAN"), "LPUSH %s %b", str(big.format_header(), 32), 0, 1}, {unique("TEXT"), "SET %s %b", "text", 2, -1}};
    for (bool tcp : {false, true})
        for (const auto& row : reads) {
            redis_raw(server, "DEL %s", key(row.m).c_str());
            for (int i = 0; row.command && i < 2; ++i)
                EXPECT_EQ(row.value.empty() ? std::to_string(sender.bio_sample_send(row.m.c_str(), &image))
                                            : redis_raw(server, row.command, key(row.m).c_str(), row.value.data(), row.value.size()),
                          row.value.empty() ? "0" : row.command[0] == 'S' ? "OK" : std::to_string(i + 1));
            const auto c = with_bus(server, tcp, [&](bMSG::Messager& bus) {
                ImagePtr got(bus.bio_sample_read(row.m.c_str()));
                const int s = got ? (holds(got->data, 128, 5) ? 1 : 8) : 0;
                return s | (bus.redis_context() ? 0 : 2) | (bus.set("after", row.m.c_str()) ? 4 : 0);
            });
            EXPECT_EQ(c.status, row.status) << row.m << " over TCP " << tcp;
            EXPECT_EQ(reported(c), row.status != 1 && row.command) << row.m;
            EXPECT_EQ(redis_raw(server, "GET after"), row.m) << "the next operation reconnects";
            EXPECT_EQ(row.left < 0 ? row.left : queued(server, row.m), row.left);
        }
    EXPECT_EQ(sender.bio_sample_read({empty.c_str(), "NOTHING"}, out, sizeof out), nullptr);
    ImagePtr found(sender.bio_sample_read({empty.c_str(), peek.c_str()}, out, 5));
    EXPECT_TRUE(found && out == peek.substr(0, 4));
}

TEST(SampleExtras, LoanCodesLocksFreedOnEveryExitAndSegmentMode)
{
    RedisServer server;
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    const std::string m = unique("LOAN");
    int fills = 0;
    const auto fill = [&](unsigned char*, size_t n) { fills += n == 16; };
    const auto look = [&](int w, int h, BImage::ImageFormat, const unsigned char*) { fills += w * h; };
    const auto throws = [](int, int, BImage::ImageFormat, const unsigned char*) { throw 1; };
    EXPECT_EQ((std::vector<int>{bus.bio_sample_loan(m.c_str(), 0, 5, BImage::GRAY8, fill), bus.bio_sample_loan("a b", 4, 4, BImage::GRAY8, fill),
                                bus.bio_sample_loan(m.c_str(), 4, 4, static_cast<BImage::ImageFormat>(10), fill)}), (std::vector<int>{-10, -2, -10}));
    EXPECT_TRUE(fills == 0 && queued(server, m) == 0) << "nothing filled or pushed";
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 4, 4, BImage::GRAY8, fill), 0);
    EXPECT_THROW(bus.bio_sample_view({m.c_str()}, 1, throws), int);
    ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 2, 8, BImage::GRAY8, fill), 0);
    EXPECT_TRUE(bus.bio_sample_view({m.c_str()}, 1, look) == 1 && fills == 18) << "both locks were freed";
    // A write that did not finish is never delivered: a fill that throws halfway (in a grown segment), a second
    // sender killed in its fill (its robust mutex taken over; qemu-user has none, its lock would stay held).
    for (const char* cut : {"throw", getenv("BMSG_TEST_EMULATOR") ? "throw" : "die"})
        for (How how : {pop, any, view, into, peek, single}) {
            ASSERT_EQ(bus.bio_sample_loan(m.c_str(), 64, 64, BImage::GRAY8, [](unsigned char* p, size_t n) { paint(p, n, 3), memcpy(p, "\3\0\0", 4); }), 0);
            int ended = 128 + SIGKILL;
            try { *cut == 't' ? bus.bio_sample_loan(m.c_str(), 64, 64, BImage::GRAY8, [](unsigned char* p, size_t n) { memset(p, 2, n / 2), throw 1; })
                              : (ended = bmsg_test::spawn_role("send", {server.socket(), m, "64", "4", "0", "0", "die"}).wait()); } catch (int) { ended -= 9; }
            const int got = bmsg_test::run_captured([&] { return take(bus, how, m, 3); }).status;
            EXPECT_EQ(std::make_tuple(ended, got, queued(server, m)),
                      std::make_tuple(*cut == 't' ? 128 : 128 + SIGKILL, how == view || how == into ? -11 : 0, 0L)) << cut << how;
        }

    const struct { mode_t asked, umask, expected; } modes[] = {
        {0, 022, 0644}, {0, 0, 0666}, {0600, 0, 0600}, {0660, 077, 0660}, {0640, 0, 0640}};
    for (const auto& row : modes) {
        umask(row.umask);  // this test's process only
        const std::string mode = unique("mode" + std::to_string(row.asked) + "_" + std::to_string(row.umask));
        bMSG::Messager owner(server.socket().c_str(), 0, 1);
        owner.set_segment_mode(row.asked);
        struct stat st;
        ASSERT_TRUE(owner.bio_sample_loan(mode.c_str(), 4, 4, BImage::GRAY8, fill) == 0 && !stat(("/dev/shm/" + key(mode)).c_str(), &st));
        EXPECT_EQ(st.st_mode & 0777, row.expected) << std::oct << row.asked << " " << row.umask;
    }
}

TEST(MessagerExtras, ReconnectAfterRestartOnlyWhenAskedFor)
{
    RedisServer server;
    for (int i = 0; i < 8; ++i) {  // bit 0: over TCP, bit 1: reconnect on, bit 2: hiredis marked it failed, server alive
        bMSG::Messager bus(i & 1 ? "127.0.0.1" : server.socket().c_str(), server.port(), 1);
        bus.set_reconnect(i & 2);
        ASSERT_EQ(bus.set("k", "v"), 0);
        i & 4 ? void(bus.redis_context()->err = REDIS_ERR_IO) : server.restart();
        EXPECT_EQ(bus.set("k", "w"), (i & 6) == 6 ? 0 : -7) << "reconnects first when the failure is known";
        EXPECT_EQ(redis_raw(server, "GET k"), i & 4 ? (i & 2 ? "w" : "v") : "(nil)") << "nothing is sent on a failed connection";
        EXPECT_EQ(bus.set("k", "v"), i & 2 ? 0 : -7) << i;
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
    EXPECT_EQ(bMSG::Subscription(server.socket().c_str(), 0, {}, keep).status(), -3);
    EXPECT_EQ(bMSG::Subscription("127.0.0.1", bmsg_test::free_port(), {"x"}, keep).status(), -1);
    { bMSG::Subscription idle("127.0.0.1", server.port(), {"quiet"}, keep); }  // stops with no message
    bMSG::Subscription sub(bus, {"one", "two"}, keep), orphan(bus, {"two"}, keep);
    ASSERT_TRUE(sub.status() == 0 && sub.running());
    EXPECT_EQ(bus.publish("one", "%s", "a") + bus.publish("two", "%s", "b"), 3);
    ASSERT_TRUE(bmsg_test::wait_until([&] { std::lock_guard<std::mutex> hold(lock); return got.size() == 3; }));
    EXPECT_FALSE((sub.stop(), sub.stop(), sub.running()));
    EXPECT_EQ(bus.publish("one", "%s", "late"), 0);
    server.stop();
    EXPECT_TRUE(bmsg_test::wait_until([&] { return !orphan.running(); }));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{"one:a", "two:b", "two:b"}));
}

// socket, modality, side, seed, seconds[, format, "loan"]: with 0 seconds sends (or lends) one
// side x side image, says "sent" and returns on a "QUIT" on list QUIT<modality>; else sends
// numbered images (never more than 8 queued) for that long.
BMSG_ROLE(send)
{
    bMSG::Messager bus(args.at(0).c_str(), 0, 1);
    const int side = std::stoi(args.at(2)), seconds = std::stoi(args.at(4));
    const auto f = static_cast<BImage::ImageFormat>(args.size() > 5 ? std::stoi(args[5]) : 0);
    const std::string mode = args.size() > 6 ? args[6] : "";  // "loan", "die" (lends, killed in its fill), "bp" (back-pressure)
    bus.set_sample_backpressure(mode == "bp" ? 5000 : -1);
    Image image(side, side, f, nullptr);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (uint32_t i = std::stoul(args.at(3)); seconds == 0 || std::chrono::steady_clock::now() < end; ++i) {
        while (mode != "bp" && bus.list_size(key(args[1]).c_str()) > 8)
            usleep(500);
        const auto fill = [&](unsigned char* p, size_t n) { paint(p, n, i), memcpy(p, &i, 4), mode == "die" && raise(SIGKILL); };
        if ((mode == "loan" || mode == "die" ? bus.bio_sample_loan(args[1].c_str(), side, side, f, fill) : bus.bio_sample_send(args[1].c_str(), &stamp(image, i))) != 0)
            return 1;
        char quit[8];
        if (seconds == 0 && printf("sent\n") > 0 && fflush(stdout) == 0)
            return bus.list_recv(("QUIT" + args[1]).c_str(), quit, sizeof quit, 30, nullptr, 0) != 4;
    }
    return 0;
}

bmsg_test::Child started(const bmsg_test::RedisServer& s, const std::string& m, const char* side, uint32_t seed,
                         const char* seconds = "0", std::vector<std::string> more = {})
{
    more.insert(more.begin(), {s.socket(), m, side, std::to_string(seed), seconds});
    bmsg_test::Child c = bmsg_test::spawn_role("send", more);
    EXPECT_TRUE(*seconds != '0' || bmsg_test::wait_until([&] { return c.out() == "sent\n"; })) << c.err();
    return c;
}

TEST(SampleLifecycle, ALongLivedReceiverGetsWholeImagesOfRestartedAndOfTwoConcurrentSendersWithEveryReceiver)
{
    bmsg_test::RedisServer server;
    const std::string m = unique("RESTART");
    bMSG::Messager bus(server.socket().c_str(), 0, 1);
    uint32_t seed = 1;
    for (How how : {pop, any, view, into, peek})  // every format, sent and lent, each receiver
        for (int restart = 0; restart < 2; ++restart, ++seed) {
            const int format = "013"[seed % 3] - '0';
            bmsg_test::Child sender = started(server, m, "17", seed, "0", {std::to_string(format), restart ? "loan" : ""});
            EXPECT_TRUE(take(bus, how, m, seed) == 1 && took == format) << how << " after restart " << restart;
            redis_raw(server, "LPUSH QUIT%s QUIT", m.c_str());
            EXPECT_EQ(sender.wait(), 0) << sender.err();
            EXPECT_FALSE(segment_exists(m)) << "the sender unlinks its segment as it returns";
        }
    Image first(8, 8, BImage::GRAY8, nullptr);
    for (const char* mode : {"", "bp"}) {  // back-pressure never overwrites a queued image: every peek gets its own
        ASSERT_TRUE(!*mode || bus.bio_sample_send(m.c_str(), &first) == 0) << "the creator, alive throughout";
        bmsg_test::Child a = (redis_raw(server, "DEL %s", key(m).c_str()), started(server, m, "16", 1600000, "2", {"0", mode}));
        bmsg_test::Child b = started(server, m, "24", 2400000, "2", {"0", mode});
        int whole = 0;
        for (int i = 0; !a.ended() || !b.ended() || i % 5; ++i) {
            if (*mode && queued(server, m) == 0 && !usleep(100))
                continue;
            const int rc = take(bus, *mode ? peek : static_cast<How>(i % 5), m, 0);
            EXPECT_TRUE(rc == 1 || (rc <= 0 && !*mode)) << "receiver " << i % 5 << " mode " << mode;
            whole += rc == 1;
        }
        EXPECT_TRUE(a.wait() == 0 && b.wait() == 0 && whole > 0) << a.err() << b.err();
    }
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
    const auto fds = bmsg_test::open_fds();
    for (How how : {pop, any, view, into, peek}) {
        ASSERT_TRUE(sender.bio_sample_send(m.c_str(), &stamp(big, 64)) == 0 && sender.bio_sample_send(m.c_str(), &stamp(small, 10)) == 0);
        const auto c = bmsg_test::run_captured([&] { return take(bus, how, m, 64); });
        EXPECT_TRUE(c.status == (how == view || how == into ? -11 : 0) && c.out.find(how == view || how == into ? "" : "shared memory holds another image") == 0) << how;
        EXPECT_EQ(take(bus, how, m, 10), 1) << how;
    }
    EXPECT_EQ(bmsg_test::open_fds(), fds + 2) << "the sender and the receiver keep their segment open, and nothing else";
    const std::string junk(32, 'J'), h64 = str(big.format_header(), 32), h10 = str(small.format_header(), 32);
    const struct { std::string m, pushed; int len, rc; } rows[] = {  // the image is longer for -9, -10, -11, -5, 1
        {m, "", 64, 0}, {m, junk, 64, -6}, {none, h64, 64, -9}, {m, h64, 64, -10}, {m, h64, 64, -11}, {m, h64, 2, -5}, {m, h10, 64, 1}};
    for (const auto& row : rows) {
        ASSERT_TRUE(sender.bio_sample_send(m.c_str(), &small) == 0 && bus.list_clear(key(m).c_str()) == 1);
        if (!row.pushed.empty())
            redis_raw(server, "LPUSH %s %b", key(row.m).c_str(), row.pushed.data(), row.pushed.size());
        unsigned char mine[16];
        Image image(4, 4, BImage::GRAY8, static_cast<unsigned char*>(memset(mine, 'x', sizeof mine)));
        char out[64];
        refused = row.rc == -10 ? 64 * 64 : 0;  // no memory for the longer image
        EXPECT_EQ(bus.bio_sample_recv_into({row.m.c_str()}, 1, image, out, row.len), row.rc);
        const int side = row.rc == 1 ? 10 : 4;  // grown into a block of the record's own; the caller's is never freed
        EXPECT_TRUE((row.rc == 1 ? image.data != mine && image.buffer == image.data : image.data == mine && !image.buffer) && image.width == side &&
                    image.height == side && image.format == BImage::GRAY8 && std::string(16, 'x') == std::string(mine, mine + 16)) << row.rc;
    }
    ASSERT_EQ(sender.bio_sample_send(m.c_str(), &stamp(small, 2)), 0);
    sender.set_sample_backpressure(50);
    EXPECT_EQ(sender.bio_sample_send(m.c_str(), &stamp(big, 1)), -12);
    EXPECT_EQ(sender.bio_sample_loan(m.c_str(), 16, 16, BImage::GRAY8, [](unsigned char*, size_t) { ADD_FAILURE() << "filled"; }), -12);
    EXPECT_EQ(take(bus, view, m, 2), 1) << "nothing was written";  // senders that wait: the two-sender test
}
