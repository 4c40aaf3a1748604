// Helpers shared by the benchmark programs.
#ifndef BMSG_BENCH_COMMON_H
#define BMSG_BENCH_COMMON_H

#include "bmessager.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

namespace bench {

inline const char* env(const char* name)
{
    const char* value = getenv(name);
    if (!value) {
        fprintf(stderr, "%s is not set: run the benchmarks through bench/run\n", name);
        exit(2);
    }
    return value;
}

// A Messager on the bench server, over its Unix socket or its TCP port;
// with `login`, logged in as the user bench/run made (BMSG_BENCH_USER,
// BMSG_BENCH_PASSWORD).
inline std::unique_ptr<bMSG::Messager> messager(bool unix_socket, bool login = false)
{
    return std::make_unique<bMSG::Messager>(
        unix_socket ? env("BMSG_BENCH_SOCKET") : "127.0.0.1",
        static_cast<uint16_t>(atoi(env("BMSG_BENCH_PORT"))), 1,
        login ? env("BMSG_BENCH_USER") : nullptr, login ? env("BMSG_BENCH_PASSWORD") : nullptr);
}

// Monotonic time in nanoseconds, comparable across processes.
inline int64_t now_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

// Resident set size of this process in KiB.
inline long rss_kib()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace bench

#endif
