// Sustained load: many producers and consumers on one list (messages per
// second), and sample streams with every pixel checked (images per second).
// A lost, doubled, reordered or damaged message or image fails the run.
// BMSG_LOAD_MESSAGES (per producer, default 50000) and BMSG_LOAD_SECONDS
// (default 60) size them.
#include "bench_common.h"
#include "bimage.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

long setting(const char* name, long fallback) { return getenv(name) ? atol(getenv(name)) : fallback; }

// 8 producers and 8 consumers, half over TCP and half over the Unix socket:
// every "<producer>:<sequence>" taken once, each producer's in order.
void BM_ListLoad(benchmark::State& state)
{
    const int n = static_cast<int>(setting("BMSG_LOAD_MESSAGES", 50000)), processes = 8;
    for (auto _ : state) {
        bench::messager(true)->list_clear("bench:load");
        std::vector<std::atomic<int>> seen(static_cast<size_t>(processes) * n);
        std::atomic<int> faults{0}, producing{processes};
        std::vector<std::thread> threads;
        const int64_t start = bench::now_ns();
        for (int p = 0; p < processes; ++p) {
            threads.emplace_back([&, p] {
                auto m = bench::messager(p % 2);
                for (int seq = 0; seq < n; ++seq)
                    faults += m->list_send("bench:load", "%d:%d", p, seq) != 0;
                --producing;
            });
            threads.emplace_back([&, p] {
                auto m = bench::messager(p % 2);
                std::vector<int> last(processes, -1);
                char msg[32];
                for (int rc; (rc = m->list_recv("bench:load", msg, sizeof msg - 1, 1, nullptr, 0)) > 0 || producing;) {
                    int from = -1, seq = -1;
                    if (rc <= 0)
                        continue;
                    msg[rc] = '\0';
                    faults += sscanf(msg, "%d:%d", &from, &seq) != 2 || from < 0 || from >= processes ||
                              seq < 0 || seq >= n || seq <= last[from] || seen[from * n + seq]++ != 0;
                    last[from < 0 || from >= processes ? 0 : from] = seq;
                }
            });
        }
        for (std::thread& t : threads)
            t.join();
        state.counters["messages_per_s"] = processes * n / (static_cast<double>(bench::now_ns() - start) / 1e9);
        for (auto& s : seen)
            faults += s != 1;
        if (faults)
            state.SkipWithError("lost, doubled or reordered messages");
    }
}

// Two modalities, each with one sender and two receivers, for
// BMSG_LOAD_SECONDS: numbered frames (the number in bytes 0-3, the rest a
// pattern of it), every pixel checked.
void BM_SampleLoad(benchmark::State& state)
{
    const int64_t seconds = setting("BMSG_LOAD_SECONDS", 60);
    const auto pixel = [](uint32_t frame, size_t i) { return static_cast<unsigned char>((frame * 2654435761u + i * 40503u) >> 13); };
    for (auto _ : state) {
        std::atomic<long> images{0}, faults{0};
        std::vector<std::thread> threads;
        const int64_t start = bench::now_ns(), end = start + seconds * 1000000000LL;
        for (const char* m : {"bench_load_a", "bench_load_b"}) {
            bench::messager(true)->list_clear(("BIOMETRIC_SAMPLE_" + std::string(m)).c_str());
            threads.emplace_back([&, m] {
                auto bus = bench::messager(true);
                BImage::Image image(320, 240, m[11] == 'a' ? BImage::GRAY8 : BImage::RGB24, nullptr);
                for (uint32_t frame = 1; bench::now_ns() < end; ++frame) {
                    for (int i = 4; i < image.count(); ++i)
                        image.data[i] = pixel(frame, i);
                    memcpy(image.data, &frame, 4);
                    while (bus->list_size(("BIOMETRIC_SAMPLE_" + std::string(m)).c_str()) > 64)
                        usleep(1000);
                    faults += bus->bio_sample_send(m, &image) != 0;
                }
            });
            for (int r = 0; r < 2; ++r)
                threads.emplace_back([&, m] {
                    auto bus = bench::messager(true);
                    BImage::Image image(1, 1, BImage::GRAY8, nullptr);
                    char out[32];
                    for (int rc = 0; rc == 1 || bench::now_ns() < end;) {
                        if ((rc = bus->bio_sample_recv_into({m}, 2, image, out, sizeof out)) != 1) {
                            faults += rc < 0 && rc != -9;  // -9: its producer ended and removed the segment
                            continue;
                        }
                        uint32_t frame;
                        memcpy(&frame, image.data, 4);
                        bool whole = image.width == 320 && strcmp(out, m) == 0;
                        for (int i = 4; whole && i < image.count(); ++i)
                            whole = image.data[i] == pixel(frame, i);
                        faults += !whole;
                        ++images;
                    }
                });
        }
        for (std::thread& t : threads)
            t.join();
        state.counters["images_per_s"] = images / (static_cast<double>(bench::now_ns() - start) / 1e9);
        if (faults || !images)
            state.SkipWithError("a sample failed or came damaged");
    }
}

} // namespace

BENCHMARK(BM_ListLoad)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_SampleLoad)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_MAIN();
