#include "bimage.h"
#include "bmessager.h"
#include "bshmem.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

using BImage::Image;
using bmsg_test::Captured;
using bmsg_test::Child;
using bmsg_test::RedisServer;
using bmsg_test::spawn_role;
using bmsg_test::redis_raw;
using bmsg_test::thrown_by;

namespace {

using ImagePtr = std::unique_ptr<Image>;

std::string unique_modality(const char* tag)
{
    return std::string(tag) + "_" + std::to_string(getpid());
}

std::string list_key(const std::string& modality)
{
    return "BIOMETRIC_SAMPLE_" + modality;
}

bool segment_exists(const std::string& modality)
{
    bMSG::SharedMemory probe("/" + list_key(modality), 0, false);
    return probe.addr != nullptr;
}

long list_length(const RedisServer& server, const std::string& modality)
{
    return std::stol(redis_raw(server, "LLEN %s", list_key(modality).c_str()));
}

// A byte pattern that differs between seeds at almost every position.
unsigned char pattern(uint32_t seed, uint32_t i)
{
    return static_cast<unsigned char>((seed * 2654435761u + i * 40503u) >> 13);
}

void fill(Image& image, uint32_t seed)
{
    for (int i = 0; i < image.count(); ++i)
        image.data[i] = pattern(seed, static_cast<uint32_t>(i));
}

bool filled_with(const Image& image, uint32_t seed)
{
    for (int i = 0; i < image.count(); ++i)
        if (image.data[i] != pattern(seed, static_cast<uint32_t>(i)))
            return false;
    return true;
}

// Runs op on a fresh Messager in a child with its output caught. Exit code 0
// when op returned null, 1 when it returned an image.
Captured in_child(const RedisServer& server, const std::function<Image*(bMSG::Messager&)>& op)
{
    return bmsg_test::run_captured([&] {
        int rc;
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 3);
            ImagePtr image(op(bus));
            rc = image ? 1 : 0;
        }
        return rc;
    });
}

// One error report of func with message, and nothing else.
void expect_report(const Captured& c, const char* func, const std::string& message)
{
    EXPECT_EQ(c.status, 0) << "a null result was expected";
    ASSERT_FALSE(c.err.empty());
    EXPECT_EQ(c.err.rfind(std::string("bMSG ERROR ") + func + "[", 0), 0u) << c.err;
    EXPECT_EQ(c.err.back(), ':') << c.err;
    EXPECT_EQ(c.err.find('\n'), std::string::npos) << c.err;
    EXPECT_EQ(c.out, message + "\n");
}

void expect_silent_null(const Captured& c)
{
    EXPECT_EQ(c.status, 0) << "a null result was expected";
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(c.out, "");
}

// Pushes raw bytes as one descriptor, as a foreign peer could.
void push_raw(const RedisServer& server, const std::string& modality, const void* bytes, size_t n)
{
    redis_raw(server, "LPUSH %s %b", list_key(modality).c_str(), bytes, n);
}

} // namespace

BMSG_ROLE(receive_two)
{
    const std::string small = args.at(1), large = args.at(2);
    bMSG::Messager bus("127.0.0.1", static_cast<uint16_t>(std::stoi(args.at(0))), 3);
    char out[64] = {};
    // The sender pushes the large image first, so both are there once
    // the small one arrives.
    ImagePtr a(bus.bio_sample_recv({small.c_str()}, 20, out, sizeof out));
    if (!a)
        return 1;
    if (out != small || a->width != 640 || a->height != 480 || a->format != BImage::GRAY8 ||
        !filled_with(*a, 1))
        return 2;

    ImagePtr b(bus.bio_sample_read(large.c_str()));
    ImagePtr b2(bus.bio_sample_read(large.c_str()));
    if (!b || !b2 || bus.list_size(list_key(large).c_str()) != 1)
        return 3;
    if (b->width != 1920 || b->height != 1080 || b->format != BImage::RGB24 ||
        b->count() != 1920 * 1080 * 3 || !filled_with(*b, 2) || !filled_with(*b2, 2))
        return 4;

    const std::string none = unique_modality("NONE");
    char name[64] = "untouched";
    ImagePtr c(bus.bio_sample_read({none.c_str(), large.c_str()}, name, sizeof name));
    if (!c || name != large || !filled_with(*c, 2))
        return 5;
    ImagePtr d(bus.bio_sample_recv({large.c_str()}, 5, out, sizeof out));
    if (!d || out != large || !filled_with(*d, 2) || bus.list_size(list_key(large).c_str()) != 0)
        return 6;
    // Both segments were opened once, by name, without owning them.
    if (bus.segments.size() != 2 || bus.segments.at(large)->owner)
        return 7;
    return 0;
}

BMSG_ROLE(receive_stream)
{
    const std::string modality = args.at(1);
    const uint32_t frames = 200, patterns = 4;
    bMSG::Messager bus(args.at(0).c_str(), 0, 3);
    char out[64];
    uint32_t last = 0;
    for (uint32_t i = 0; i < frames; ++i) {
        ImagePtr image(bus.bio_sample_recv({modality.c_str()}, 20, out, sizeof out));
        if (!image || image->count() != 640 * 480)
            return 1;
        uint32_t id;
        memcpy(&id, image->data, 4);
        // The segment holds the newest frame: never older than the
        // descriptor just popped, never older than the last one seen.
        if (id >= frames || id < i || id < last)
            return 2;
        for (int k = 4; k < image->count(); ++k)
            if (image->data[k] != pattern(id % patterns, static_cast<uint32_t>(k)))
                return 3;
        last = id;
    }
    return 0;
}

BMSG_ROLE(send_then_exit)
{
    const std::string gone = args.at(1);
    Image image(32, 24, BImage::GRAY8, nullptr);
    fill(image, 11);
    bMSG::Messager bus(args.at(0).c_str(), 0, 3);
    for (int i = 0; i < 3; ++i)
        if (bus.bio_sample_send(gone.c_str(), &image) != 0)
            return 1;
    char go[8];
    return bus.list_recv("GO", go, sizeof go, 20, nullptr, 0) == 2 ? 0 : 2;
}

TEST(ImageRecord, CountFollowsTheFormatTableIn32BitArithmetic)
{
    struct Case {
        int width, height, format, count;
    } cases[] = {
        {640, 480, 0, 307200},  {640, 480, 1, 921600},  {640, 480, 2, 921600},
        {640, 480, 3, 460800},  {640, 480, 4, 614400},  {640, 480, 5, 1228800},
        {640, 480, 6, 1228800}, {640, 480, 7, 460800},  {640, 480, 8, 460800},
        {640, 480, 9, 614400},  {640, 480, 10, 0},      {640, 480, -1, 0},
        {3, 3, 3, 13},                              // 27 bytes halved, rounded down
        {65536, 65536, 0, 0},                       // 2^32 wraps to 0
        {40000, 40000, 1, 505032704},               // 4.8e9 mod 2^32
        {50000, 50000, 8, 1602516352},              // product wraps before the halving
        {-1, 1, 0, -1},                             // 0xffffffff read back signed
    };
    unsigned char borrowed = 0;
    for (const Case& c : cases) {
        Image image(c.width, c.height, static_cast<BImage::ImageFormat>(c.format), &borrowed);
        EXPECT_EQ(image.count(), c.count) << c.width << "x" << c.height << " format " << c.format;
    }
}

TEST(ImageRecord, ConstructorAllocatesOnlyAPositiveLength)
{
    Image own(640, 480, BImage::NV12, nullptr);
    ASSERT_NE(own.data, nullptr);
    EXPECT_EQ(own.buffer, static_cast<void*>(own.data));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(own.data) % 16, 0u);
    EXPECT_EQ(own.count(), 460800);
    memset(own.data, 0xab, 460800);  // the sanitizer checks the block's size

    const int empty[][3] = {{0, 480, 0}, {640, 480, 10}, {-1, 1, 0}, {65536, 65536, 0}, {-640, 480, 1}};
    for (const auto& e : empty) {
        Image none(e[0], e[1], static_cast<BImage::ImageFormat>(e[2]), nullptr);
        EXPECT_EQ(none.data, nullptr) << e[0] << "x" << e[1] << " format " << e[2];
        EXPECT_EQ(none.buffer, nullptr);
    }

    // Caller data is used as it is and never freed (freeing a stack buffer
    // would crash the sanitizer build).
    unsigned char pixels[6] = {1, 2, 3, 4, 5, 6};
    {
        Image borrowed(3, 2, BImage::GRAY8, pixels);
        EXPECT_EQ(borrowed.data, pixels);
        EXPECT_EQ(borrowed.buffer, nullptr);
    }
    EXPECT_EQ(pixels[5], 6);
}

TEST(ImageHeader, HasAFixedLittleEndianLayoutAndRoundTrips)
{
    unsigned char borrowed = 0;
    const Image image(0x41020304, 2, BImage::GRAY16, &borrowed);
    const unsigned char* h = image.format_header();
    EXPECT_EQ(memcmp(h, "BIMG", 4), 0);
    const unsigned char fixed[] = {1, 0, 32, 0,                 // version, length
                                   0x04, 0x03, 0x02, 0x41,      // width
                                   2, 0, 0, 0,                  // height
                                   9, 0, 0, 0,                  // format
                                   0x10, 0x0c, 0x08, 0x04,      // count(), wrapped
                                   0, 0, 0, 0};                 // reserved
    EXPECT_EQ(memcmp(h + 4, fixed, sizeof fixed), 0);
    EXPECT_EQ(h, image.format_header()) << "the bytes live in the record";

    unsigned int width = 0, height = 0;
    unsigned long size = 0;
    auto format = BImage::NV12;
    ASSERT_EQ(Image::parse_image_header(h, width, height, size, format), 1);
    EXPECT_EQ(width, 0x41020304u);
    EXPECT_EQ(height, 2u);
    EXPECT_EQ(format, BImage::GRAY16);
    EXPECT_EQ(size, static_cast<uint32_t>(image.count()));

    // An unknown format travels too, with no pixels.
    const Image odd(7, 5, static_cast<BImage::ImageFormat>(42), &borrowed);
    ASSERT_EQ(Image::parse_image_header(odd.format_header(), width, height, size, format), 1);
    EXPECT_EQ(static_cast<int>(format), 42);
    EXPECT_EQ(size, 0u);
}

TEST(ImageHeader, ParseRejectsBytesThatAreNotAHeader)
{
    unsigned int width = 11, height = 12;
    unsigned long size = 13;
    auto format = BImage::NV12;
    auto parse = [&](const unsigned char* bytes) {
        return Image::parse_image_header(bytes, width, height, size, format);
    };

    unsigned char zeros[32] = {};
    EXPECT_EQ(parse(zeros), 0);
    EXPECT_EQ(parse(nullptr), 0);
    unsigned char text[33] = "not an image header, just text!";
    EXPECT_EQ(parse(text), 0);

    unsigned char borrowed = 0;
    const Image image(640, 480, BImage::RGB24, &borrowed);
    unsigned char good[32];
    memcpy(good, image.format_header(), 32);
    for (int i = 0; i < 32; ++i) {
        unsigned char bad[32];
        memcpy(bad, good, 32);
        bad[i] ^= 0x20;
        EXPECT_EQ(parse(bad), 0) << "byte " << i << " changed";
    }
    // Magic and hash right, but a length that does not match the fields.
    unsigned char longer[32];
    const Image other(640, 481, BImage::RGB24, &borrowed);
    memcpy(longer, other.format_header(), 32);
    memcpy(longer + 20, good + 20, 4);
    EXPECT_EQ(parse(longer), 0);

    EXPECT_EQ(width, 11u) << "outputs are left alone on failure";
    EXPECT_EQ(height, 12u);
    EXPECT_EQ(size, 13u);
    EXPECT_EQ(format, BImage::NV12);
    EXPECT_EQ(parse(good), 1);
}

TEST(SampleTransfer, ImagesCrossProcessesWithIdenticalPixels)
{
    RedisServer server;
    const std::string small = unique_modality("FACE");
    const std::string large = unique_modality("IRIS");

    Child receiver = spawn_role("receive_two", {std::to_string(server.port()), small, large});

    {
        bMSG::Messager bus(server.socket().c_str(), 0, 3);
        Image big(1920, 1080, BImage::RGB24, nullptr);
        Image grey(640, 480, BImage::GRAY8, nullptr);
        fill(big, 2);
        fill(grey, 1);
        ASSERT_EQ(bus.bio_sample_send(large.c_str(), &big), 0);
        ASSERT_EQ(bus.bio_sample_send(small.c_str(), &grey), 0);
        EXPECT_EQ(receiver.wait(), 0);
        EXPECT_EQ(list_length(server, small), 0);
        EXPECT_EQ(list_length(server, large), 0);
        ASSERT_EQ(bus.segments.size(), 2u);
        EXPECT_TRUE(bus.segments.at(small)->owner);
    }
    EXPECT_FALSE(segment_exists(small)) << "the sender unlinks its segments";
    EXPECT_FALSE(segment_exists(large));
}

TEST(SampleTransfer, ManyFramesArriveWholeWhileTheSenderKeepsWriting)
{
    RedisServer server;
    const std::string modality = unique_modality("STREAM");
    const uint32_t frames = 200;

    // Every frame carries its number in its first 4 bytes and a pattern
    // derived from it in the rest; a copy mixing two frames fails the check.
    // The patterns are made in advance so that the sends follow each other
    // closely and overlap the receiver's copies.
    const uint32_t patterns = 4;
    Child receiver = spawn_role("receive_stream", {server.socket(), modality});

    {
        bMSG::Messager bus(server.socket().c_str(), 0, 3);
        std::vector<ImagePtr> made;
        for (uint32_t p = 0; p < patterns; ++p) {
            made.emplace_back(new Image(640, 480, BImage::GRAY8, nullptr));
            fill(*made.back(), p);
        }
        for (uint32_t id = 0; id < frames; ++id) {
            Image& frame = *made[id % patterns];
            memcpy(frame.data, &id, 4);
            ASSERT_EQ(bus.bio_sample_send(modality.c_str(), &frame), 0);
        }
        EXPECT_EQ(receiver.wait(), 0);
    }
    EXPECT_FALSE(segment_exists(modality));
}

TEST(SampleTransfer, OneModalityReceiveReportsBadDataType2AgainstARealServer)
{
    // BRPOP answers (key, value); this receive accepts only a bare string,
    // so against a real server it reports the array type and the descriptor
    // is lost. Peers rely on it staying so.
    RedisServer server;
    const std::string modality = unique_modality("ODD");
    bMSG::Messager sender(server.socket().c_str(), 0, 3);
    Image image(16, 16, BImage::GRAY8, nullptr);
    fill(image, 3);
    ASSERT_EQ(sender.bio_sample_send(modality.c_str(), &image), 0);

    Captured c = in_child(server, [&](bMSG::Messager& bus) {
        return bus.bio_sample_recv(modality.c_str(), 5);
    });
    expect_report(c, "bio_sample_recv", "bad data type: 2");
    EXPECT_EQ(list_length(server, modality), 0);

    // A time-out is silent.
    expect_silent_null(in_child(server, [&](bMSG::Messager& bus) {
        return bus.bio_sample_recv(modality.c_str(), 1);
    }));
}

TEST(SampleTransfer, SeveralModalitiesWaitOnOneJoinedKey)
{
    // The modality keys are joined into one BRPOP argument, so the call waits
    // on a single list named by all of them; peers pass one modality.
    RedisServer server;
    const std::string a = unique_modality("A");
    const std::string b = unique_modality("B");
    bMSG::Messager sender(server.socket().c_str(), 0, 3);
    Image image(8, 8, BImage::GRAY8, nullptr);
    fill(image, 4);
    ASSERT_EQ(sender.bio_sample_send(a.c_str(), &image), 0);

    bMSG::Messager bus(server.socket().c_str(), 0, 3);
    char out[64] = "untouched";
    EXPECT_EQ(bus.bio_sample_recv({a.c_str(), b.c_str()}, 1, out, sizeof out), nullptr);
    EXPECT_EQ(list_length(server, a), 1);
    EXPECT_STREQ(out, "untouched");

    // An empty vector sends nothing and returns at once.
    redis_raw(server, "CONFIG RESETSTAT");
    EXPECT_EQ(bus.bio_sample_recv(std::vector<const char*>{}, 0, out, sizeof out), nullptr);
    EXPECT_EQ(redis_raw(server, "INFO commandstats").find("cmdstat_brpop"), std::string::npos);
    EXPECT_EQ(bus.bio_sample_read(std::vector<const char*>{}, out, sizeof out), nullptr);
    EXPECT_STREQ(out, "untouched");
}

TEST(SampleTransfer, LargerImageThrowsOnBothSides)
{
    RedisServer server;
    const std::string modality = unique_modality("GROW");
    const std::string socket = server.socket();
    bMSG::Messager receiver(socket.c_str(), 0, 3);
    char out[64];
    {
        bMSG::Messager sender(socket.c_str(), 0, 3);
        Image small(64, 64, BImage::GRAY8, nullptr);
        fill(small, 5);
        ASSERT_EQ(sender.bio_sample_send(modality.c_str(), &small), 0);
        bMSG::SharedMemory* segment = sender.segments.at(modality);

        Image wider(65, 64, BImage::GRAY8, nullptr);
        EXPECT_EQ(thrown_by([&] { sender.bio_sample_send(modality.c_str(), &wider); }),
                  "Data size exceeds shared memory size: /" + list_key(modality) +
                      " 4160+32>4176-48");
        EXPECT_EQ(list_length(server, modality), 1) << "nothing pushed";
        EXPECT_EQ(sender.segments.at(modality), segment) << "the segment is kept";

        ImagePtr got(receiver.bio_sample_recv({modality.c_str()}, 5, out, sizeof out));
        ASSERT_NE(got, nullptr);
        EXPECT_TRUE(filled_with(*got, 5));
    }

    // A new sender makes a bigger segment; the receiver's cached one is the
    // old, smaller one.
    bMSG::Messager sender(socket.c_str(), 0, 3);
    Image large(128, 128, BImage::GRAY8, nullptr);
    fill(large, 6);
    ASSERT_EQ(sender.bio_sample_send(modality.c_str(), &large), 0);
    EXPECT_EQ(thrown_by([&] { delete receiver.bio_sample_recv({modality.c_str()}, 5, out, sizeof out); }),
              "Read size exceeds shared memory size");
    EXPECT_EQ(list_length(server, modality), 0) << "the popped descriptor is gone";
}

TEST(SampleSend, ResultsSegmentContentAndDescriptor)
{
    RedisServer server;
    const std::string modality = unique_modality("SEND");
    bMSG::Messager bus(server.socket().c_str(), 0, 3);

    EXPECT_EQ(bus.bio_sample_send(modality.c_str(), nullptr), -10);
    Image emptied(4, 4, BImage::GRAY8, nullptr);
    emptied.data = nullptr;
    EXPECT_EQ(bus.bio_sample_send(modality.c_str(), &emptied), -10);
    Image image(32, 16, BImage::YUYV, nullptr);
    fill(image, 7);
    const std::string blank = modality + " X";
    EXPECT_EQ(bus.bio_sample_send(blank.c_str(), &image), -2);
    EXPECT_TRUE(bus.segments.empty());
    EXPECT_FALSE(segment_exists(modality));
    EXPECT_FALSE(segment_exists(blank));
    EXPECT_EQ(list_length(server, modality), 0);

    ASSERT_EQ(bus.bio_sample_send(modality.c_str(), &image), 0);
    ASSERT_EQ(bus.bio_sample_send(modality.c_str(), &image), 0);
    EXPECT_EQ(list_length(server, modality), 2);
    EXPECT_EQ(bus.segments.size(), 1u);

    // Each list element is exactly the 32 header bytes.
    const std::string header(reinterpret_cast<const char*>(image.format_header()), 32);
    EXPECT_EQ(redis_raw(server, "LINDEX %s 0", list_key(modality).c_str()), header);
    // Segment: 48-byte mutex, header, pixels; capacity count() + 32.
    bMSG::SharedMemory peer("/" + list_key(modality), 1024 + 32, false);
    ASSERT_NE(peer.addr, nullptr);
    const char* bytes = static_cast<const char*>(peer.addr);
    EXPECT_EQ(std::string(bytes + 48, 32), header);
    EXPECT_EQ(memcmp(bytes + 80, image.data, 1024), 0);
    EXPECT_EQ(bMSG::SharedMemory("/" + list_key(modality), 1024 + 33, false).addr, nullptr);

    // The sender reads its own sample from its own segment.
    bMSG::SharedMemory* own = bus.segments.at(modality);
    ImagePtr back(bus.bio_sample_read(modality.c_str()));
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(filled_with(*back, 7));
    EXPECT_EQ(bus.segments.at(modality), own);

    // An unknown format has no pixels: the segment holds the header only.
    const std::string odd = unique_modality("ODDFMT");
    Image unknown(10, 10, static_cast<BImage::ImageFormat>(10), nullptr);
    ASSERT_EQ(bus.bio_sample_send(odd.c_str(), &unknown), 0);
    EXPECT_EQ(bus.segments.at(odd)->size, 32u + 48u);
    char out[64];
    ImagePtr none(bus.bio_sample_recv({odd.c_str()}, 5, out, sizeof out));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->data, nullptr);
    EXPECT_EQ(none->width, 10);
    EXPECT_EQ(static_cast<int>(none->format), 10);
}

TEST(SampleSend, NoConnectionGivesMinusOneAndNullImages)
{
    const uint16_t dead = bmsg_test::free_port();
    Captured c = bmsg_test::run_captured([dead] {
        int rc = 0;
        {
            bMSG::Messager bus("127.0.0.1", dead, 1);
            Image image(4, 4, BImage::GRAY8, nullptr);
            if (bus.bio_sample_send("X", &image) != -1)
                rc |= 1;
            char out[8];
            if (bus.bio_sample_recv({"X"}, 1, out, sizeof out) || bus.bio_sample_recv("X", 1))
                rc |= 2;
            if (bus.bio_sample_read("X") || bus.bio_sample_read({"X"}, out, sizeof out))
                rc |= 4;
            if (!bus.segments.empty())
                rc |= 8;
        }
        return rc;
    });
    EXPECT_EQ(c.status, 0);
    // One failed attempt in the constructor and one per operation.
    EXPECT_NE(c.err.find("bMSG ERROR connect["), std::string::npos);
}

TEST(SampleFailures, ReceiveReportsAndLosesThePoppedDescriptor)
{
    RedisServer server;
    char out[64];
    auto recv = [&](const std::string& m, int len) {
        return in_child(server, [&](bMSG::Messager& bus) {
            return bus.bio_sample_recv({m.c_str()}, 5, out, len);
        });
    };

    const std::string garbage = unique_modality("GARBAGE");
    unsigned char junk[32];
    memset(junk, 0x5a, sizeof junk);
    push_raw(server, garbage, junk, sizeof junk);
    push_raw(server, garbage, "short", 5);
    expect_report(recv(garbage, sizeof out), "bio_sample_recv", "load image failed");
    expect_report(recv(garbage, sizeof out), "bio_sample_recv", "load image failed");
    EXPECT_EQ(list_length(server, garbage), 0);

    // A valid header whose segment does not exist.
    const std::string orphan = unique_modality("ORPHAN");
    unsigned char borrowed = 0;
    const Image shape(64, 64, BImage::GRAY8, &borrowed);
    push_raw(server, orphan, shape.format_header(), 32);
    expect_report(recv(orphan, sizeof out), "bio_sample_recv", "shared memory is invalid");
    EXPECT_EQ(list_length(server, orphan), 0);

    // A header for a bigger image than the segment was made for.
    const std::string shrunk = unique_modality("SHRUNK");
    bMSG::Messager sender(server.socket().c_str(), 0, 3);
    Image tiny(8, 8, BImage::GRAY8, nullptr);
    ASSERT_EQ(sender.bio_sample_send(shrunk.c_str(), &tiny), 0);
    redis_raw(server, "DEL %s", list_key(shrunk).c_str());
    push_raw(server, shrunk, shape.format_header(), 32);
    expect_report(recv(shrunk, sizeof out), "bio_sample_recv", "shared memory is invalid");

    // A buffer as long as the modality has no room for the NUL.
    ASSERT_EQ(sender.bio_sample_send(shrunk.c_str(), &tiny), 0);
    const int len = static_cast<int>(shrunk.size());
    Captured c = bmsg_test::run_captured([&] {
        int rc;
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 3);
            char name[64];
            ImagePtr image(bus.bio_sample_recv({shrunk.c_str()}, 5, name, len));
            rc = image ? 1 : shrunk.compare(0, len - 1, name) != 0 ? 2 : 0;
        }
        return rc;
    });
    expect_report(c, "bio_sample_recv", "buffer size too small: " + std::to_string(len));
    EXPECT_EQ(list_length(server, shrunk), 0);

    // Nothing waiting: silent after the time-out.
    expect_silent_null(in_child(server, [&](bMSG::Messager& bus) {
        return bus.bio_sample_recv({garbage.c_str()}, 1, out, sizeof out);
    }));
}

TEST(SampleFailures, ReadReportsAndKeepsOnlyUsableDescriptors)
{
    RedisServer server;
    auto read = [&](const std::string& m) {
        return in_child(server, [&](bMSG::Messager& bus) { return bus.bio_sample_read(m.c_str()); });
    };

    const std::string empty = unique_modality("EMPTY");
    expect_silent_null(read(empty));
    Captured c = bmsg_test::run_captured([&] {
        int rc;
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 3);
            char out[16] = "untouched";
            ImagePtr image(bus.bio_sample_read({empty.c_str(), "nothing"}, out, sizeof out));
            rc = image ? 1 : strcmp(out, "untouched") != 0 ? 2 : 0;
        }
        return rc;
    });
    expect_silent_null(c);

    // Undecodable: reported, and it stays where it is.
    const std::string garbage = unique_modality("GARBAGE");
    push_raw(server, garbage, "0123456789abcdef0123456789abcdef", 32);
    expect_report(read(garbage), "bio_sample_read", "load image failed");
    EXPECT_EQ(list_length(server, garbage), 1);

    // No segment: reported and removed, so later reads are not stuck on it.
    const std::string orphan = unique_modality("ORPHAN");
    unsigned char borrowed = 0;
    const Image shape(64, 64, BImage::GRAY8, &borrowed);
    push_raw(server, orphan, shape.format_header(), 32);
    push_raw(server, orphan, shape.format_header(), 32);
    expect_report(read(orphan), "bio_sample_read", "shared memory is invalid");
    EXPECT_EQ(list_length(server, orphan), 1);

    // Not a list: reported with the error reply's type, and the connection
    // is dropped so that the next operation makes a new one.
    const std::string wrong = unique_modality("WRONG");
    redis_raw(server, "SET %s text", list_key(wrong).c_str());
    c = bmsg_test::run_captured([&] {
        int rc;
        {
            bMSG::Messager bus(server.socket().c_str(), 0, 3);
            ImagePtr image(bus.bio_sample_read(wrong.c_str()));
            rc = image ? 1 : bus.redis_context() ? 2 : bus.set("after", "reconnected") != 0 ? 3 : 0;
        }
        return rc;
    });
    expect_report(c, "bio_sample_read", "bad data type: 6, value is INT 0");
    EXPECT_EQ(redis_raw(server, "GET after"), "reconnected");
}

TEST(SampleFailures, SegmentTruncatedByAnotherProcessGivesInvalidNotSigbus)
{
    RedisServer server;
    const std::string modality = unique_modality("TRUNC");
    const std::string segment = "/" + list_key(modality);
    bMSG::Messager sender(server.socket().c_str(), 0, 3);
    Image image(64, 48, BImage::GRAY8, nullptr);
    fill(image, 7);
    char out[64];

    Captured c = bmsg_test::run_captured([&] {
        int rc = 0;
        {
            // The receiver maps the segment with its first image...
            bMSG::Messager receiver(server.socket().c_str(), 0, 3);
            if (sender.bio_sample_send(modality.c_str(), &image) != 0)
                return 1;
            ImagePtr first(receiver.bio_sample_recv({modality.c_str()}, 5, out, sizeof out));
            if (!first || !filled_with(*first, 7))
                return 2;
            // ...then someone shrinks it; the next receive must not fault.
            if (sender.bio_sample_send(modality.c_str(), &image) != 0)
                return 3;
            int fd = shm_open(segment.c_str(), O_RDWR, 0);
            if (fd < 0 || ftruncate(fd, 0) != 0)
                return 4;
            close(fd);
            ImagePtr second(receiver.bio_sample_recv({modality.c_str()}, 5, out, sizeof out));
            if (second)
                rc = 5;
            // The owner restores its segment on the next send.
            fill(image, 8);
            if (sender.bio_sample_send(modality.c_str(), &image) != 0)
                return 6;
            ImagePtr third(receiver.bio_sample_recv({modality.c_str()}, 5, out, sizeof out));
            if (!rc && (!third || !filled_with(*third, 8)))
                rc = 7;
        }
        return rc;
    });
    expect_report(c, "bio_sample_recv", "shared memory is invalid");
    // The sends ran in the child, whose copy of the sender never unlinks.
    shm_unlink(segment.c_str());
}

namespace {

// Three descriptors of an image filled with seed 11 are queued for
// `modality`; a receiver maps the segment with the first, then `unlink`
// removes the segment's name. That receiver loads the next one from its
// mapping; a receiver that had not mapped the segment reports it invalid.
void expect_only_mapped_receivers_load(const RedisServer& server, const std::string& modality,
                                       const std::function<void()>& unlink)
{
    char out[64];
    bMSG::Messager mapped(server.socket().c_str(), 0, 3);
    ImagePtr first(mapped.bio_sample_recv({modality.c_str()}, 20, out, sizeof out));
    ASSERT_TRUE(first && filled_with(*first, 11));
    unlink();
    EXPECT_FALSE(segment_exists(modality));
    ASSERT_EQ(list_length(server, modality), 2);

    ImagePtr second(mapped.bio_sample_recv({modality.c_str()}, 5, out, sizeof out));
    EXPECT_TRUE(second && filled_with(*second, 11));
    expect_report(in_child(server, [&](bMSG::Messager& bus) {
                      return bus.bio_sample_recv({modality.c_str()}, 5, out, sizeof out);
                  }),
                  "bio_sample_recv", "shared memory is invalid");
    EXPECT_EQ(list_length(server, modality), 0) << "the failed receive lost its descriptor";
}

} // namespace

TEST(SampleFailures, UnlinkedSegmentStillServesReceiversThatMappedIt)
{
    RedisServer server;
    Image image(32, 24, BImage::GRAY8, nullptr);
    fill(image, 11);

    // The sender process exits, its Messager unlinking the segment, while
    // descriptors are still queued.
    const std::string gone = unique_modality("GONE");
    Child sender = spawn_role("send_then_exit", {server.socket(), gone});
    expect_only_mapped_receivers_load(server, gone, [&] {
        redis_raw(server, "LPUSH GO go");
        EXPECT_EQ(sender.wait(), 0);
    });

    // Someone else removes the name while the sender lives on.
    const std::string unlinked = unique_modality("UNLINKED");
    bMSG::Messager bus(server.socket().c_str(), 0, 3);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(bus.bio_sample_send(unlinked.c_str(), &image), 0);
    expect_only_mapped_receivers_load(server, unlinked, [&] {
        EXPECT_EQ(shm_unlink(("/" + list_key(unlinked)).c_str()), 0);
    });
}
