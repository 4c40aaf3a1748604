// One trace line of the demo: "+S.mmm s  who  what", the time counted from
// the demo's start (milliseconds since the epoch, given by run.sh).
#ifndef BMSG_DEMO_TRACE_H
#define BMSG_DEMO_TRACE_H

#include <chrono>
#include <cstdarg>
#include <cstdio>

namespace demo {

inline long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

inline void trace(long long start_ms, const char* who, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

inline void trace(long long start_ms, const char* who, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    printf("%+8.3f s  %-8s %s\n", (now_ms() - start_ms) / 1000.0, who, text);
    fflush(stdout);
}

} // namespace demo

#endif
