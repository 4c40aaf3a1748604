// Sends COUNT samples of WIDTHxHEIGHT GRAY8 on MODALITY at RATE per second
// (bench/record's sample source), then prints the rate it reached.
#include "bench_common.h"

#include "bimage.h"
#include "bshmem.h"

#include <chrono>
#include <thread>

int main(int argc, char** argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: record_feed SOCKET MODALITY COUNT RATE WIDTH HEIGHT\n");
        return 2;
    }
    bMSG::Messager bus(argv[1], 0, 1);
    const int count = atoi(argv[3]);
    const double rate = atof(argv[4]);
    BImage::Image image(atoi(argv[5]), atoi(argv[6]), BImage::GRAY8, nullptr);
    if (!bus.redis_context() || !image.data || count <= 0 || rate <= 0)
        return 1;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(i / rate)));
        for (int p = 0; p < image.count(); ++p)
            image.data[p] = static_cast<unsigned char>(p + i);
        if (bus.bio_sample_send(argv[2], &image) != 0)
            return 1;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    printf("%d samples in %.2f s: %.1f/s\n", count, seconds, (count - 1) / seconds);
    // Let the recorder read the last one before the segment goes.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return 0;
}
