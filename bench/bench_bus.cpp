// Bus operations per second on one Messager with one request in flight,
// over the Unix socket and over TCP loopback; set, get and a queue round
// trip also logged in as an ACL user (login: AUTH once per connection).
#include "bench_common.h"

#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

void bus_set(benchmark::State& state, bool unix_socket, bool login = false)
{
    auto m = bench::messager(unix_socket, login);
    for (auto _ : state)
        if (m->set("bench:key", "xxx") != 0)
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}

void bus_get(benchmark::State& state, bool unix_socket, bool login = false)
{
    auto m = bench::messager(unix_socket, login);
    m->set("bench:key", "xxx");
    char buf[16];
    for (auto _ : state)
        if (m->get("bench:key", buf, sizeof buf) != 0)
            state.SkipWithError("get failed");
    state.SetItemsProcessed(state.iterations());
}

// One LPUSH and one RPOP per iteration: a message through a queue.
void bus_list_send_recv(benchmark::State& state, bool unix_socket, bool login = false)
{
    auto m = bench::messager(unix_socket, login);
    m->list_clear("bench:list");
    char buf[16];
    for (auto _ : state) {
        m->list_send("bench:list", "%s", "xxx");
        if (m->list_recv("bench:list", buf, sizeof buf, 0, nullptr, 0) != 3)
            state.SkipWithError("list_recv failed");
    }
    state.SetItemsProcessed(state.iterations());
}

void bus_list_size(benchmark::State& state, bool unix_socket)
{
    auto m = bench::messager(unix_socket);
    for (auto _ : state)
        if (m->list_size("bench:list") < 0)
            state.SkipWithError("list_size failed");
    state.SetItemsProcessed(state.iterations());
}

// PUBLISH with one native subscriber listening on its own connection.
void bus_publish(benchmark::State& state, bool unix_socket)
{
    std::atomic<long> received{0};
    auto sub = bench::messager(unix_socket);
    std::thread listener([&] {
        try {
            sub->subscribe("bench:channel", [&](const char*, const char* p, size_t, void*) {
                if (p[0] == 'q')
                    throw 0;  // subscribe has no other way out
                ++received;
            });
        } catch (int) {
        }
    });
    auto m = bench::messager(unix_socket);
    while (m->publish("bench:channel", "%s", "xxx") < 1)
        usleep(1000);
    for (auto _ : state)
        if (m->publish("bench:channel", "%s", "xxx") != 1)
            state.SkipWithError("publish reached no subscriber");
    state.SetItemsProcessed(state.iterations());
    m->publish("bench:channel", "%s", "quit");
    listener.join();
}

// The same SET and GET written directly on hiredis: what a blocking client
// costs without the library.
void hiredis_command(benchmark::State& state, bool unix_socket, const char* command)
{
    redisContext* c = unix_socket ? redisConnectUnix(bench::env("BMSG_BENCH_SOCKET"))
                                  : redisConnect("127.0.0.1", atoi(bench::env("BMSG_BENCH_PORT")));
    for (auto _ : state) {
        void* r = redisCommand(c, command);
        if (!r)
            state.SkipWithError("no reply");
        freeReplyObject(r);
    }
    redisFree(c);
    state.SetItemsProcessed(state.iterations());
}

void hiredis_set(benchmark::State& state, bool unix_socket)
{
    hiredis_command(state, unix_socket, "SET bench:key xxx");
}

void hiredis_get(benchmark::State& state, bool unix_socket)
{
    hiredis_command(state, unix_socket, "GET bench:key");
}

// Resident size across one million bus operations after a warm-up.
void bus_rss(benchmark::State& state)
{
    auto m = bench::messager(true);
    char buf[16];
    auto round = [&] {
        m->set("bench:key", "xxx");
        m->get("bench:key", buf, sizeof buf);
        m->list_send("bench:list", "%s", "xxx");
        m->list_recv("bench:list", buf, sizeof buf, 0, nullptr, 0);
        m->list_size("bench:list");
    };
    for (int i = 0; i < 2000; ++i)
        round();
    long before = bench::rss_kib();
    for (auto _ : state)
        for (int i = 0; i < 200000; ++i)
            round();
    state.counters["rss_start_kib"] = static_cast<double>(before);
    state.counters["rss_end_kib"] = static_cast<double>(bench::rss_kib());
    state.counters["operations"] = 1000000;
}

} // namespace

BENCHMARK_CAPTURE(bus_set, unix, true);
BENCHMARK_CAPTURE(bus_set, tcp, false);
BENCHMARK_CAPTURE(bus_get, unix, true);
BENCHMARK_CAPTURE(bus_get, tcp, false);
BENCHMARK_CAPTURE(bus_list_send_recv, unix, true);
BENCHMARK_CAPTURE(bus_list_send_recv, tcp, false);
BENCHMARK_CAPTURE(bus_set, unix_login, true, true);
BENCHMARK_CAPTURE(bus_set, tcp_login, false, true);
BENCHMARK_CAPTURE(bus_get, unix_login, true, true);
BENCHMARK_CAPTURE(bus_get, tcp_login, false, true);
BENCHMARK_CAPTURE(bus_list_send_recv, unix_login, true, true);
BENCHMARK_CAPTURE(bus_list_send_recv, tcp_login, false, true);
BENCHMARK_CAPTURE(bus_list_size, unix, true);
BENCHMARK_CAPTURE(bus_list_size, tcp, false);
BENCHMARK_CAPTURE(bus_publish, unix, true);
BENCHMARK_CAPTURE(bus_publish, tcp, false);
BENCHMARK_CAPTURE(hiredis_set, unix, true);
BENCHMARK_CAPTURE(hiredis_set, tcp, false);
BENCHMARK_CAPTURE(hiredis_get, unix, true);
BENCHMARK_CAPTURE(hiredis_get, tcp, false);
BENCHMARK(bus_rss)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
