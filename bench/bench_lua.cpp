// Messages per second from publish to a callback: a Lua subscription
// delivered by check in LuaJIT, next to the native Messager::subscribe.
#include "bench_common.h"

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

constexpr int messages = 100000;

// Waits until the listener is subscribed (its warm-up messages are not
// counted), publishes `messages` messages one request at a time, and reads
// the listener's time of the last delivery from `from`.
void publish_and_time(benchmark::State& state, const char* channel, int from, pid_t listener)
{
    auto m = bench::messager(true);
    while (m->publish(channel, "%s", "warm-up") < 1)
        usleep(1000);
    for (auto _ : state) {
        const int64_t start = bench::now_ns();
        for (int i = 0; i < messages; ++i)
            m->publish(channel, "%s", "m");
        char line[64] = {};
        ssize_t n = read(from, line, sizeof line - 1);
        if (n <= 0) {
            state.SkipWithError("listener failed");
            break;
        }
        const double seconds = static_cast<double>(strtoll(line, nullptr, 10) - start) / 1e9;
        state.counters["messages_per_s"] = messages / seconds;
    }
    close(from);
    waitpid(listener, nullptr, 0);
}

void lua_subscription(benchmark::State& state)
{
    int out[2];
    if (pipe(out) != 0)
        return;
    pid_t child = fork();
    if (child == 0) {
        dup2(out[1], 1);
        close(out[0]);
        setenv("LUA_CPATH", BMSG_LUA_CPATH, 1);
        const std::string count = std::to_string(messages);
        execlp("luajit", "luajit", BMSG_BENCH_DIR "/lua_delivery.lua", count.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    publish_and_time(state, "bench:lua", out[0], child);
}

void native_subscription(benchmark::State& state)
{
    int out[2];
    if (pipe(out) != 0)
        return;
    pid_t child = fork();
    if (child == 0) {
        close(out[0]);
        // TCP, as the Lua subscription threads connect.
        auto m = bench::messager(false);
        int got = 0;
        m->subscribe("bench:native", [&](const char*, const char* p, size_t, void*) {
            if (p[0] == 'm' && ++got == messages) {
                const std::string line = std::to_string(bench::now_ns()) + "\n";
                _exit(write(out[1], line.data(), line.size()) > 0 ? 0 : 1);
            }
        });
        _exit(1);
    }
    close(out[1]);
    publish_and_time(state, "bench:native", out[0], child);
}

} // namespace

BENCHMARK(lua_subscription)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(native_subscription)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
