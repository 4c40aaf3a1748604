// Two sample producers on two modalities and four consumers, all separate
// processes, for BMSG_LOAD_SECONDS (default 60): every received image must
// carry exactly the pixels its frame counter announces.
#include "bimage.h"
#include "bmessager.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
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

// Sends frames until the deadline, keeping the queue short.
int produce(const RedisServer& server, const Stream& s, Clock::time_point deadline)
{
    bMSG::Messager bus(server.socket().c_str(), 0, 3);
    BImage::Image image(s.width, s.height, s.format, nullptr);
    const std::string key = std::string(bus.bio_sample) + s.modality;
    for (uint32_t frame = 1; Clock::now() < deadline; ++frame) {
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

// Receives until nothing arrived for two seconds after the deadline; writes
// the number of images checked to `out`. Exit 0 only if every image matched.
int consume(const RedisServer& server, const Stream& s, Clock::time_point deadline, int out)
{
    bMSG::Messager bus(server.socket().c_str(), 0, 3);
    long checked = 0;
    char name[64];
    for (;;) {
        std::unique_ptr<BImage::Image> image(
            bus.bio_sample_recv({s.modality.c_str()}, 2, name, sizeof name));
        if (!image) {
            if (Clock::now() > deadline)
                break;
            continue;
        }
        if (s.modality != name || image->width != s.width || image->height != s.height ||
            image->format != s.format || !painted(*image))
            return 1;
        ++checked;
    }
    return write(out, &checked, sizeof checked) == sizeof checked ? 0 : 2;
}

} // namespace

TEST(SampleLoad, TwoProducersFourConsumersEveryImageWhole)
{
    RedisServer server;
    const std::string tag = std::to_string(getpid());
    const Stream streams[2] = {{"LOADFACE" + tag, 640, 480, static_cast<BImage::ImageFormat>(0)},
                               {"LOADIRIS" + tag, 320, 240, static_cast<BImage::ImageFormat>(1)}};
    const auto deadline = Clock::now() + std::chrono::seconds(load_seconds());
    int counts[2];
    ASSERT_EQ(pipe(counts), 0);

    std::vector<pid_t> children;
    auto spawn = [&](const std::function<int()>& fn) {
        pid_t pid = fork();
        if (pid == 0)
            _exit(fn());
        children.push_back(pid);
    };
    for (const Stream& s : streams) {
        spawn([&] { return produce(server, s, deadline); });
        for (int c = 0; c < 2; ++c)
            spawn([&] { return consume(server, s, deadline, counts[1]); });
    }
    int failed = 0;
    for (pid_t pid : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        failed += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    close(counts[1]);
    long total = 0, n = 0;
    while (read(counts[0], &n, sizeof n) == sizeof n)
        total += n;
    close(counts[0]);
    EXPECT_EQ(failed, 0);
    EXPECT_GT(total, 0);
    printf("images checked: %ld\n", total);
}
