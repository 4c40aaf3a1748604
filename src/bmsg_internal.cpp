// The helpers of bmsg_internal.h: sleeping, the error report, command
// templates and running a command with SIGPIPE kept away from the caller.
#include "bmsg_internal.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace bMSG {

void sleep_ms(int milliseconds)
{
    if (milliseconds <= 0)
        return;
    timespec ts{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
}

void report(const char* func, int line, const char* format, ...)
{
    fprintf(stderr, "bMSG ERROR %s[%d]:", func, line);
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
    putchar('\n');
    fflush(stderr);
}

bool build_template(char (&out)[template_size], const char* verb, const char* name,
                    const char* format)
{
    if (!name || !format)
        return false;
    size_t n = 0;
    auto put = [&](char c) {
        if (n + 1 >= template_size)
            return false;
        out[n++] = c;
        return true;
    };
    for (const char* p = verb; *p; ++p)
        if (!put(*p))
            return false;
    if (!put(' '))
        return false;
    for (const char* p = name; *p; ++p)
        if (!put(*p) || (*p == '%' && !put('%')))
            return false;
    if (!put(' '))
        return false;
    for (const char* p = format; *p; ++p)
        if (!put(*p))
            return false;
    out[n] = '\0';
    return true;
}

bool is_message(const redisReply* r)
{
    return r->type == REDIS_REPLY_ARRAY && r->elements == 3 &&
           r->element[0]->type == REDIS_REPLY_STRING && strcmp(r->element[0]->str, "message") == 0 &&
           r->element[1]->type == REDIS_REPLY_STRING && r->element[2]->type == REDIS_REPLY_STRING;
}

void prepare_connection(redisContext* c)
{
    fcntl(c->fd, F_SETFD, FD_CLOEXEC);
#if HIREDIS_MAJOR >= 1
    c->reader->maxelements = max_reply_elements;
#endif
}

SigpipeGuard::SigpipeGuard() : was_pending_(false)
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &saved_);
    // Unblocked before, SIGPIPE cannot be pending now: it would have been
    // delivered. Only an application that blocks it itself can have one.
    if (sigismember(&saved_, SIGPIPE)) {
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE);
    }
}

SigpipeGuard::~SigpipeGuard()
{
    if (!was_pending_) {
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE)) {
            sigset_t pipe;
            sigemptyset(&pipe);
            sigaddset(&pipe, SIGPIPE);
            const timespec now{0, 0};
            while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
    }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

Reply vcommand(redisContext* c, const char* format, va_list args)
{
    SigpipeGuard guard;
    return take_reply(redisvCommand(c, format, args));
}

Reply command(redisContext* c, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    Reply r = vcommand(c, format, ap);
    va_end(ap);
    return r;
}

} // namespace bMSG
