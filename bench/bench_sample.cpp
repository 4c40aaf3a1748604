// Sample transfer across two processes, from send to completed receive:
// the shared-memory path, the same image pushed through Redis as one list
// element, and the floor of a shared-memory transfer (two copies of the
// pixels and one Redis round trip).
#include "bench_common.h"
#include "bimage.h"

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int transfers = 300;

// Median, 99th percentile (microseconds) and transfers per second.
void report(benchmark::State& state, std::vector<double> lat_us, double seconds)
{
    std::sort(lat_us.begin(), lat_us.end());
    state.counters["median_us"] = lat_us[lat_us.size() / 2];
    state.counters["p99_us"] = lat_us[lat_us.size() * 99 / 100];
    state.counters["images_per_s"] = static_cast<double>(lat_us.size()) / seconds;
    state.counters["bytes"] = static_cast<double>(state.range(0) * state.range(1) * state.range(2));
}

BImage::ImageFormat format_of(int bytes_per_pixel)
{
    // 1 byte per pixel is format 0, 2 is format 4, 3 is format 1.
    return static_cast<BImage::ImageFormat>(bytes_per_pixel == 1 ? 0 : bytes_per_pixel == 2 ? 4 : 1);
}

// Forks a receiver that runs `receive` `count` times and writes the
// monotonic time each one returns (the moment the receiver has the image;
// 0 for a failure) to a pipe; the sender waits for that time before it sends
// the next image, so one image is in flight. `send` returns the nanoseconds
// of its own that do not count (the caller's pixel writing in a loan).
template <typename Send, typename Receive>
void transfer_loop(benchmark::State& state, int count, Send send, Receive receive)
{
    int times[2];
    if (pipe(times) != 0) {
        state.SkipWithError("pipe");
        return;
    }
    pid_t child = fork();
    if (child == 0) {
        close(times[0]);
        for (int i = 0; i < count; ++i) {
            const int64_t t = receive();
            if (t == 0)
                _exit(1);
            if (write(times[1], &t, sizeof t) != sizeof t)
                _exit(2);
        }
        _exit(0);
    }
    close(times[1]);
    std::vector<double> lat;
    const int64_t start = bench::now_ns();
    for (auto _ : state) {
        for (int i = 0; i < count; ++i) {
            const int64_t t0 = bench::now_ns();
            const int64_t excluded = send();
            int64_t t1;
            if (read(times[0], &t1, sizeof t1) != sizeof t1) {
                state.SkipWithError("receiver failed");
                break;
            }
            lat.push_back(static_cast<double>(t1 - t0 - excluded) / 1000.0);
        }
    }
    const double seconds = static_cast<double>(bench::now_ns() - start) / 1e9;
    close(times[0]);
    waitpid(child, nullptr, 0);
    if (!lat.empty())
        report(state, lat, seconds);
}

std::string modality_for(const benchmark::State& state)
{
    return "bench" + std::to_string(getpid()) + "_" + std::to_string(state.range(0)) + "x" +
           std::to_string(state.range(1));
}

// The described send: the caller's image copied into the segment.
int64_t send_copy(bMSG::Messager& sender, const std::string& modality, BImage::Image& image)
{
    sender.bio_sample_send(modality.c_str(), &image);
    return 0;
}

// A loan whose fill writes the pixels; the fill's time is the caller's own
// work and is left out of the latency.
int64_t send_loan(bMSG::Messager& sender, const std::string& modality, BImage::Image& image)
{
    int64_t filling = 0;
    sender.bio_sample_loan(modality.c_str(), image.width, image.height, image.format,
                           [&](unsigned char* p, size_t n) {
                               const int64_t t = bench::now_ns();
                               memset(p, 0x5a, n);
                               filling = bench::now_ns() - t;
                           });
    return filling;
}

// A sender whose segment for `modality` exists, sized for `image` (filled
// here), with nothing queued yet.
std::unique_ptr<bMSG::Messager> ready_sender(const std::string& modality, BImage::Image& image)
{
    memset(image.data, 0x5a, image.count());
    auto sender = bench::messager(true);
    sender->bio_sample_send(modality.c_str(), &image);  // creates the segment
    sender->list_clear((std::string(sender->bio_sample) + modality).c_str());
    return sender;
}

void sample_shm(benchmark::State& state)
{
    const std::string modality = modality_for(state);
    BImage::Image image(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
                        format_of(static_cast<int>(state.range(2))), nullptr);
    auto sender = ready_sender(modality, image);
    transfer_loop(
        state, transfers, [&] { return send_copy(*sender, modality, image); },
        [&, receiver = std::unique_ptr<bMSG::Messager>()]() mutable {
            if (!receiver)
                receiver = bench::messager(true);
            char out[64];
            BImage::Image* got = receiver->bio_sample_recv({modality.c_str()}, 5, out, sizeof out);
            const bool ok = got && got->count() == image.count();
            delete got;
            return ok ? bench::now_ns() : 0;
        });
}

// One zero-copy or reusing path: `loan` picks the sender, `into` receives
// into one reused image (time when it returns), else the view (time when
// its function starts).
void sample_direct(benchmark::State& state, bool loan, bool into)
{
    const std::string modality = modality_for(state) + (loan ? "l" : "s") + (into ? "i" : "v");
    BImage::Image image(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
                        format_of(static_cast<int>(state.range(2))), nullptr);
    auto sender = ready_sender(modality, image);
    BImage::Image reused(0, 0, BImage::GRAY8, nullptr);
    transfer_loop(
        state, transfers,
        [&] { return loan ? send_loan(*sender, modality, image) : send_copy(*sender, modality, image); },
        [&, receiver = std::unique_ptr<bMSG::Messager>()]() mutable -> int64_t {
            if (!receiver)
                receiver = bench::messager(true);
            if (into)
                return receiver->bio_sample_recv_into({modality.c_str()}, 5, reused) == 1 &&
                               reused.count() == image.count()
                           ? bench::now_ns()
                           : 0;
            int64_t seen = 0;
            receiver->bio_sample_view({modality.c_str()}, 5,
                                      [&](int, int, BImage::ImageFormat, const unsigned char* p) {
                                          seen = bench::now_ns();
                                          benchmark::DoNotOptimize(p[0]);
                                      });
            return seen;
        });
}

void sample_loan_view(benchmark::State& state)
{
    sample_direct(state, true, false);
}

void sample_send_view(benchmark::State& state)
{
    sample_direct(state, false, false);
}

void sample_recv_into(benchmark::State& state)
{
    sample_direct(state, false, true);
}

void sample_through_redis(benchmark::State& state)
{
    const std::string key = "bench:pixels:" + modality_for(state);
    const size_t bytes = static_cast<size_t>(state.range(0) * state.range(1) * state.range(2));
    std::vector<unsigned char> pixels(bytes, 0x5a);
    auto sender = bench::messager(true);
    sender->list_clear(key.c_str());
    transfer_loop(
        state, transfers,
        [&] {
            sender->list_send(key.c_str(), "%b", pixels.data(), bytes);
            return int64_t{0};
        },
        [&, receiver = std::unique_ptr<bMSG::Messager>(),
         buf = std::vector<char>()]() mutable {
            if (!receiver) {
                receiver = bench::messager(true);
                buf.resize(bytes + 1);
            }
            return receiver->list_recv(key.c_str(), buf.data(), static_cast<int>(buf.size()), 5,
                                       nullptr, 0) == static_cast<int>(bytes)
                       ? bench::now_ns()
                       : 0;
        });
}

// Two copies of the pixels (into and out of the segment) and one round trip.
void sample_floor(benchmark::State& state)
{
    const size_t bytes = static_cast<size_t>(state.range(0) * state.range(1) * state.range(2));
    std::vector<unsigned char> a(bytes, 0x5a), b(bytes), c(bytes);
    auto m = bench::messager(true);
    std::vector<double> lat;
    const int64_t start = bench::now_ns();
    for (auto _ : state) {
        for (int i = 0; i < transfers; ++i) {
            const int64_t t0 = bench::now_ns();
            memcpy(b.data(), a.data(), bytes);
            memcpy(c.data(), b.data(), bytes);
            benchmark::DoNotOptimize(c.data());
            m->list_size("bench:floor");
            lat.push_back(static_cast<double>(bench::now_ns() - t0) / 1000.0);
        }
    }
    report(state, lat, static_cast<double>(bench::now_ns() - start) / 1e9);
}

// Resident size of the receiving process across ten thousand transfers.
void sample_rss(benchmark::State& state)
{
    const std::string modality = modality_for(state) + "rss";
    BImage::Image image(640, 480, format_of(1), nullptr);
    memset(image.data, 1, image.count());
    auto sender = bench::messager(true);
    sender->bio_sample_send(modality.c_str(), &image);
    sender->list_clear((std::string(sender->bio_sample) + modality).c_str());
    int rss[2];
    if (pipe(rss) != 0)
        return;
    pid_t child = fork();
    if (child == 0) {
        auto receiver = bench::messager(true);
        char out[64];
        long before = 0;
        for (int i = 0; i < 10000; ++i) {
            if (i == 100)
                before = bench::rss_kib();
            delete receiver->bio_sample_recv({modality.c_str()}, 5, out, sizeof out);
        }
        long after[2] = {before, bench::rss_kib()};
        _exit(write(rss[1], after, sizeof after) == sizeof after ? 0 : 1);
    }
    long sender_before = 0;
    for (auto _ : state)
        for (int i = 0; i < 10000; ++i) {
            if (i == 100)
                sender_before = bench::rss_kib();
            sender->bio_sample_send(modality.c_str(), &image);
        }
    long receiver_rss[2] = {0, 0};
    if (read(rss[0], receiver_rss, sizeof receiver_rss) != sizeof receiver_rss)
        state.SkipWithError("receiver failed");
    waitpid(child, nullptr, 0);
    close(rss[0]);
    close(rss[1]);
    state.counters["transfers"] = 10000;
    state.counters["receiver_rss_start_kib"] = static_cast<double>(receiver_rss[0]);
    state.counters["receiver_rss_end_kib"] = static_cast<double>(receiver_rss[1]);
    state.counters["sender_rss_start_kib"] = static_cast<double>(sender_before);
    state.counters["sender_rss_end_kib"] = static_cast<double>(bench::rss_kib());
}

void sizes(benchmark::internal::Benchmark* b)
{
    b->Args({640, 480, 1})->Args({1280, 720, 2})->Args({1920, 1080, 3});
    b->Iterations(1)->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(sample_floor)->Apply(sizes);
BENCHMARK(sample_shm)->Apply(sizes);
BENCHMARK(sample_through_redis)->Apply(sizes);
BENCHMARK(sample_loan_view)->Apply(sizes);
BENCHMARK(sample_send_view)->Apply(sizes);
BENCHMARK(sample_recv_into)->Apply(sizes);
BENCHMARK(sample_rss)->Args({640, 480, 1})->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
