// The helpers of bmsg_internal.h: sleeping, command templates and running
// a command with SIGPIPE kept away from the caller.
#include "bmsg_internal.h"

#include "bmessager.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

namespace bMSG {

void sleep_ms(int milliseconds)
{
    if (milliseconds <= 0)
        return;
    timespec ts{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
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

namespace {

// Sets the context's error as hiredis does: later commands on it fail.
void set_error(redisContext* c, int type, const char* text)
{
    c->err = type;
    snprintf(c->errstr, sizeof c->errstr, "%s", text);
}

// Sends one formatted command (freed here, and first overwritten when it is
// `secret`: AUTH's holds the password) and reads its reply. Every write goes
// through send(MSG_NOSIGNAL); hiredis's own output buffer stays empty, so
// redisGetReply only reads.
Reply send_and_read(redisContext* c, char* cmd, long long len, bool secret = false)
{
    const auto release = [&](char* p) {
        if (secret && len > 0)
            explicit_bzero(p, static_cast<size_t>(len));
        redisFreeCommand(p);
    };
    const std::unique_ptr<char, decltype(release)> owned(cmd, release);
    if (len == -1)
        set_error(c, REDIS_ERR_OOM, "Out of memory");
    else if (len < 0)
        set_error(c, REDIS_ERR_OTHER, "Invalid format string");
    if (len < 0 || c->err)
        return nullptr;
    for (long long done = 0; done < len;) {
        const ssize_t n = send(c->fd, cmd + done, static_cast<size_t>(len - done), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            char text[128];
            set_error(c, REDIS_ERR_IO, strerror_r(errno, text, sizeof text));
            return nullptr;
        }
        done += n;
    }
    void* reply = nullptr;
    if (redisGetReply(c, &reply) != REDIS_OK)
        return nullptr;
    return take_reply(reply);
}

} // namespace

Opened open_connection(const std::string& address, uint16_t port, const Login& login,
                       Context& out, std::string* reason)
{
    out.reset(address[0] == '/' ? redisConnectUnix(address.c_str())
                                : redisConnect(address.c_str(), port));
    if (!out)
        return Opened::no_context;
    if (out->err)
        return Opened::failed;
    prepare_connection(out.get());
    if (!login.on)
        return Opened::ok;
    // "AUTH password" for the default user, else "AUTH user password".
    const std::string& first = login.user.empty() ? login.password : login.user;
    const char* argv[] = {"AUTH", first.data(), login.password.data()};
    const size_t lengths[] = {4, first.size(), login.password.size()};
    char* cmd = nullptr;
    const long long len = redisFormatCommandArgv(&cmd, login.user.empty() ? 2 : 3, argv, lengths);
    Reply r = send_and_read(out.get(), cmd, len, true);
    if (!r)
        return Opened::failed;
    if (r->type != REDIS_REPLY_ERROR)
        return Opened::ok;
    // The same refusal again on the same object is not reported again.
    if (!reason || reason->compare(0, std::string::npos, r->str, r->len) != 0)
        BMSG_REPORT("connect", "AUTH refused: %s: address[%s] port[%d]", r->str, address.c_str(),
                    port);
    if (reason)
        reason->assign(r->str, r->len);
    out.reset();
    return Opened::refused;
}

Reply vcommand(redisContext* c, const char* format, va_list args)
{
    char* cmd = nullptr;
    const int len = redisvFormatCommand(&cmd, format, args);
    return send_and_read(c, cmd, len);
}

Reply command_argv(redisContext* c, int argc, const char** argv, const size_t* lengths)
{
    char* cmd = nullptr;
    const long long len = redisFormatCommandArgv(&cmd, argc, argv, lengths);
    return send_and_read(c, cmd, len);
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
