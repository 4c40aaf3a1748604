// Two sample producers on two modalities and four consumers, all separate
// processes, for BMSG_LOAD_SECONDS (default 60): every received image must
// carry exactly the pixels its frame counter announces.
#include "bimage.h"
#include "bmessager.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using bmsg_test::RedisServer;

namespace {

using Clock = std::chrono::steady_clock;

struct Stream {
    std::string modality;
    int width;
    int height;
    BImage::ImageFormat format;
};

// Pixel i of frame f of a w x h image; bytes 0-3 hold f itself.
unsigned char pixel(uint32_t w, uint32_t h, uint32_t f, uint32_t i)
{
    return static_cast<unsigned char>((f * 2654435761u) ^ (i * 40503u + w * 31u + h));
}

void paint(BImage::Image& image, uint32_t frame)
{
    const auto w = static_cast<uint32_t>(image.width), h = static_cast<uint32_t>(image.height);
    const auto n = static_cast<uint32_t>(image.count());
    memcpy(image.data, &frame, sizeof frame);
    for (uint32_t i = sizeof frame; i < n; ++i)
        image.data[i] = pixel(w, h, frame, i);
}

bool painted(const BImage::Image& image)
{
    uint32_t frame;
    memcpy(&frame, image.data, sizeof frame);
    const auto w = static_cast<uint32_t>(image.width), h = static_cast<uint32_t>(image.height);
    const auto n = static_cast<uint32_t>(image.count());
    for (uint32_t i = sizeof frame; i < n; ++i)
        if (image.data[i] != pixel(w, h, frame, i))
            return false;
    return true;
}

int load_seconds()
{
    const char* s = getenv("BMSG_LOAD_SECONDS");
    return s ? atoi(s) : 60;
}

// A stream from role arguments: socket, modality, width, height, format, seconds.
Stream stream(const std::vector<std::string>& args)
{
    return {args.at(1), std::stoi(args.at(2)), std::stoi(args.at(3)),
            static_cast<BImage::ImageFormat>(std::stoi(args.at(4)))};
}

Clock::time_point deadline(const std::vector<std::string>& args)
{
    return Clock::now() + std::chrono::seconds(std::stoi(args.at(5)));
}

} // namespace

// Sends frames until the deadline, keeping the queue short.
BMSG_ROLE(produce)
{
    const Stream s = stream(args);
    const auto end = deadline(args);
    bMSG::Messager bus(args.at(0).c_str(), 0, 3);
    BImage::Image image(s.width, s.height, s.format, nullptr);
    const std::string key = std::string(bus.bio_sample) + s.modality;
    for (uint32_t frame = 1; Clock::now() < end; ++frame) {
        paint(image, frame);
        if (bus.bio_sample_send(s.modality.c_str(), &image) != 0)
            return 1;
        while (bus.list_size(key.c_str()) > 64)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Receivers may still be copying out of the segment, which this
    // process unlinks when it exits; the mapping they hold stays valid.
    return 0;
}

// Receives until nothing arrived for two seconds after the deadline; prints
// the number of images checked. Exit 0 only if every image matched.
BMSG_ROLE(consume)
{
    const Stream s = stream(args);
    const auto end = deadline(args);
    bMSG::Messager bus(args.at(0).c_str(), 0, 3);
    long checked = 0;
    char name[64];
    for (;;) {
        std::unique_ptr<BImage::Image> image(
            bus.bio_sample_recv({s.modality.c_str()}, 2, name, sizeof name));
        if (!image) {
            if (Clock::now() > end)
                break;
            continue;
        }
        if (s.modality != name || image->width != s.width || image->height != s.height ||
            image->format != s.format || !painted(*image))
            return 1;
        ++checked;
    }
    printf("%ld\n", checked);
    return 0;
}

TEST(SampleLoad, TwoProducersFourConsumersEveryImageWhole)
{
    RedisServer server;
    const std::string tag = std::to_string(getpid());
    const std::string seconds = std::to_string(load_seconds());
    const Stream streams[2] = {{"LOADFACE" + tag, 640, 480, static_cast<BImage::ImageFormat>(0)},
                               {"LOADIRIS" + tag, 320, 240, static_cast<BImage::ImageFormat>(1)}};
    std::vector<bmsg_test::Child> children;
    for (const Stream& s : streams) {
        const std::vector<std::string> args{server.socket(), s.modality, std::to_string(s.width),
                                            std::to_string(s.height),
                                            std::to_string(static_cast<int>(s.format)), seconds};
        children.push_back(bmsg_test::spawn_role("produce", args));
        for (int c = 0; c < 2; ++c)
            children.push_back(bmsg_test::spawn_role("consume", args));
    }
    long total = 0;
    for (bmsg_test::Child& c : children) {
        EXPECT_EQ(c.wait(), 0) << c.err();
        total += atol(c.out().c_str());
    }
    EXPECT_GT(total, 0);
    printf("images checked: %ld\n", total);
}
