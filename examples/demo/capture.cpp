// The demo's capture service: waits for "capture:N" on BIO_CMD, makes a
// fingerprint-like ridge image (a different one for every N), sends it as a
// "finger" sample, answers on BIOMETRIC_RESP and announces its state on
// SYSTEM_STATUS. "quit" ends it. Logs in as the user "capture" with the
// password in BMSG_PASSWORD.
// Usage: demo_capture SOCKET START_MS
#include "bimage.h"
#include "bmessager.h"
#include "trace.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr int width = 256;
constexpr int height = 320;
constexpr int wait_seconds = 30;

// A whorl of ridges around a core whose place, spacing and twist change with n, inside
// a fingertip-shaped ellipse on white.
std::unique_ptr<BImage::Image> ridges(int n)
{
    std::unique_ptr<BImage::Image> image(new BImage::Image(width, height, BImage::GRAY8, nullptr));
    const double cx = width / 2 + 18 * std::sin(n * 1.7), cy = height * 0.45 + 22 * std::cos(n * 1.3);
    const double spacing = 0.55 + 0.05 * (n % 4), twist = 5.0 + 2.0 * std::sin(n * 2.1);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double dx = x - cx, dy = (y - cy) * 0.8;
            const double r = std::sqrt(dx * dx + dy * dy), theta = std::atan2(dy, dx);
            // A whorl: rings wound into a spiral, bent more the farther from the core.
            const double bend = twist * std::sin(theta + n) * std::fmin(1.0, r / 60);
            const double ridge = std::sin(spacing * r + 2 * theta + bend + 3.2 * std::sin(0.03 * x + n) * std::sin(0.025 * y + n));
            const double ex = (x - width / 2.0) / (width * 0.45), ey = (y - height / 2.0) / (height * 0.47);
            const double edge = std::fmin(1.0, std::fmax(0.0, (1.0 - (ex * ex + ey * ey)) * 8));
            const double ink = edge * (0.5 + 0.5 * ridge);
            image->data[y * width + x] = static_cast<unsigned char>(255 - 215 * ink);
        }
    }
    return image;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: demo_capture SOCKET START_MS\n");
        return 2;
    }
    const long long start = atoll(argv[2]);
    bMSG::Messager bus(argv[1], 0, 3, "capture", getenv("BMSG_PASSWORD"));
    if (!bus.redis_context())
        return 1;
    demo::trace(start, "capture", "logged in to %s as capture", argv[1]);
    bus.system_publish("%s", "capture:ready");
    demo::trace(start, "capture", "ready, waiting on %s", bus.bio_cmd);
    char command[256];
    for (;;) {
        const int n = bus.list_recv(bus.bio_cmd, command, sizeof command - 1, wait_seconds, nullptr, 0);
        if (n <= 0) {
            demo::trace(start, "capture", "no command for %d s (%d), giving up", wait_seconds, n);
            return 1;
        }
        command[n] = '\0';
        if (strcmp(command, "quit") == 0)
            break;
        const int number = strncmp(command, "capture:", 8) == 0 ? atoi(command + 8) : 0;
        if (number <= 0) {
            bus.bio_resp_send("%s", ("unknown:" + std::string(command)).c_str());
            continue;
        }
        bus.system_publish("%s", ("capture:capturing:" + std::to_string(number)).c_str());
        const long long t0 = demo::now_ms();
        auto image = ridges(number);
        if (bus.bio_sample_send("finger", image.get()) != 0) {
            demo::trace(start, "capture", "sample %d could not be sent", number);
            return 1;
        }
        demo::trace(start, "capture", "'%s': %dx%d GRAY8 sample on BIOMETRIC_SAMPLE_finger (%lld ms)",
                    command, width, height, demo::now_ms() - t0);
        // Whole texts go through "%s": the library splits a format's blanks
        // into separate list elements.
        const std::string answer = "captured:" + std::to_string(number) + ":" +
                                   std::to_string(width) + "x" + std::to_string(height);
        bus.bio_resp_send("%s", answer.c_str());
        bus.system_publish("%s", ("capture:idle:" + std::to_string(number)).c_str());
    }
    bus.system_publish("%s", "capture:stopped");
    demo::trace(start, "capture", "stopped");
    return 0;
}
