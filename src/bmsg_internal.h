// Helpers shared by the library's source files; not installed, not exported.
#ifndef BMSG_INTERNAL_H
#define BMSG_INTERNAL_H

#include <hiredis/hiredis.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bMSG {

// Sleeps `milliseconds`, resuming after signals so the total is kept.
void sleep_ms(int milliseconds);

// The library's one diagnostic form: "bMSG ERROR <func>[<line>]:" on stderr,
// then the message and a line break on stdout, then stderr is flushed.
// The two streams are kept apart on purpose; stdout is not flushed. With a
// handler set (breport.h) the handler gets the report instead.
void report(const char* func, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define BMSG_REPORT(func, ...) ::bMSG::report(func, __LINE__, __VA_ARGS__)

struct ReplyFree {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};
// Owns one hiredis reply; freed on every return path.
using Reply = std::unique_ptr<redisReply, ReplyFree>;

inline Reply take_reply(void* r) { return Reply(static_cast<redisReply*>(r)); }

// redisCommand / redisvCommand without SIGPIPE: hiredis writes with write(),
// which raises SIGPIPE (and kills the process) when the server has gone
// away. These format the command with hiredis, send it with MSG_NOSIGNAL and
// then read the reply with redisGetReply, so no signal is ever raised and
// none is left pending. A failed send marks the context as hiredis would
// (REDIS_ERR_IO and the system error text). The reply is owned.
Reply command(redisContext* c, const char* format, ...);
Reply vcommand(redisContext* c, const char* format, va_list args);

// The same for a command given as separate arguments (redisCommandArgv).
Reply command_argv(redisContext* c, int argc, const char** argv, const size_t* lengths);

struct ContextFree {
    void operator()(redisContext* c) const { redisFree(c); }
};
using Context = std::unique_ptr<redisContext, ContextFree>;

struct Login;

enum class Opened {
    ok,          // `out` holds the ready connection
    no_context,  // hiredis could not allocate one
    failed,      // `out` holds the context with its error set (err, errstr)
    refused,     // AUTH was refused; reported here, nothing held
};

// The library's one way to open a connection, used by Messager and
// Subscription (on which the Lua subscriptions run): a Unix socket when
// `address` starts with '/', TCP to address:port otherwise; readied with
// prepare_connection; then, when `login` is on, AUTH before anything else.
// A refused AUTH is reported ("connect", with the server's reason and never
// the password) unless `reason` already holds that same reason, and goes to
// `reason` when given. An AUTH that got no reply counts as failed (the
// connection broke).
Opened open_connection(const std::string& address, uint16_t port, const Login& login,
                       Context& out, std::string* reason = nullptr);

// A pub/sub "message" reply: ["message", channel, payload], all strings.
bool is_message(const redisReply* r);

// Readies a connection the library opened: its socket stays out of child
// processes (a child that inherited it would keep a subscription alive on
// the server after the parent has closed it), and, with hiredis 1.x, its
// reader refuses replies declaring more than max_reply_elements elements,
// so a hostile declared length cannot make it reserve gigabytes.
void prepare_connection(redisContext* c);

// hiredis 1.x reserves one 8-byte element pointer per declared element as
// soon as an array's header arrives, before any element does, and nests
// arrays without limit; the bound caps what one header can make it reserve.
// The library's own commands: the longest reply they get is a three-element
// message, so 64 leaves room and a header reserves at most 512 bytes.
constexpr unsigned max_reply_elements = 64;

// Replies that carry a script's data: the array the Lua get turns into a
// table. 65536 elements (512 KiB reserved per header) fits any table a
// script on the device handles, and stays small beside the device's memory.
constexpr unsigned max_data_reply_elements = 1u << 16;

// Raises the bound of `c` for the life of this object, i.e. for the command
// it guards; no effect with hiredis 0.14, which has no bound.
class ReplyBound {
public:
    ReplyBound(redisContext* c, unsigned elements) : c_(c)
    {
#if HIREDIS_MAJOR >= 1
        saved_ = c->reader->maxelements;
        c->reader->maxelements = elements;
#else
        (void)elements;
#endif
    }
    ~ReplyBound()
    {
#if HIREDIS_MAJOR >= 1
        c_->reader->maxelements = saved_;
#endif
    }
    ReplyBound(const ReplyBound&) = delete;
    ReplyBound& operator=(const ReplyBound&) = delete;

private:
    [[maybe_unused]] redisContext* c_;
    [[maybe_unused]] long long saved_ = 0;
};

// Size of the command template buffer of the push and publish operations.
constexpr size_t template_size = 1024;

// Writes "<verb> <name> <format>" into out for hiredis's formatter, with
// every '%' of name doubled so that caller text in a key or channel is never
// read as a conversion. Returns false when the result does not fit.
bool build_template(char (&out)[template_size], const char* verb, const char* name,
                    const char* format);

} // namespace bMSG

#endif
