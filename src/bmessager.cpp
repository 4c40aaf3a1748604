// Messager: the connection with its retry loop, settings, list queues and
// publish/subscribe. The sample operations are in bsample.cpp.
#include "bmessager.h"

#include "bmsg_internal.h"
#include "bshmem.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace bMSG {

namespace {

// A value of `len` bytes fits a caller buffer of `size` bytes when it is
// strictly shorter; a negative size admits any length.
bool fits(size_t len, int size)
{
    return static_cast<uint64_t>(len) < static_cast<uint64_t>(static_cast<int64_t>(size));
}

// Writes key into key_out when asked to; -5 when it had to be cut.
int write_key(char* key_out, int key_size, const char* key, int result)
{
    if (!key_out || key_size <= 0)
        return result;
    int n = snprintf(key_out, static_cast<size_t>(key_size), "%s", key);
    return n >= key_size ? -5 : result;
}

} // namespace

Login::Login(const char* user_, const char* password_)
    : on(password_ || (user_ && *user_)),
      user(user_ ? user_ : ""),
      password(password_ ? password_ : "")
{
}

Login::~Login()
{
    explicit_bzero(&password[0], password.size());
}

Messager::Messager(const char* address_, uint16_t port_, int attempts_)
    : Messager(address_, port_, attempts_, nullptr, nullptr)
{
}

Messager::Messager(const char* address_, uint16_t port_, int attempts_, const char* user,
                   const char* password)
    : context(nullptr),
      attempts(attempts_),
      address(address_ && *address_ ? address_ : "127.0.0.1"),
      port(port_),
      credentials(user, password),
      device_cmd("DEVICE_CMD"),
      bio_sample("BIOMETRIC_SAMPLE_"),
      device_status("DEVICE_STATUS"),
      system_status("SYSTEM_STATUS"),
      bio_info("MAIN_BIOMETRIC_INFO"),
      bio_cmd("BIO_CMD"),
      bio_resp("BIOMETRIC_RESP"),
      error_replies(credentials.on)
{
    connect();
}

Messager::~Messager()
{
    if (context) {
        redisFree(context);
        context = nullptr;
    }
    for (auto& entry : segments)
        delete entry.second;
}

void Messager::connect()
{
    if (context)
        return;
    // A refused login stays refused until something changes: a service that
    // loops on an operation must not send AUTH (and report) as fast as it
    // can, so for a second the operations fail at once.
    const auto now = std::chrono::steady_clock::now();
    if (refused_at && now - *refused_at < std::chrono::seconds(1))
        return;
    const int tries = attempts > 0 ? attempts : 2000000000;
    for (int i = 0; i < tries; ++i) {
        Context c;
        switch (open_connection(address, port, credentials, c, &refusal)) {
        case Opened::ok:
            context = c.release();
            refused_at.reset();
            return;
        case Opened::refused:
            refused_at = std::chrono::steady_clock::now();
            return;  // another attempt would be refused the same way
        case Opened::no_context:
            BMSG_REPORT("connect", "Can't allocate redis context\n");
            break;
        case Opened::failed:
            BMSG_REPORT("connect", "%s: address[%s] port[%d]", c->errstr, address.c_str(), port);
            break;
        }
        sleep_ms(1000);
    }
}

bool Messager::ensure_connected()
{
    // Opted in: a connection hiredis marked failed is dropped for a new one.
    if (reconnect && context && context->err) {
        redisFree(context);
        context = nullptr;
    }
    if (!context)
        connect();
    return context != nullptr;
}

// What every operation makes of its reply before reading it: `missing` when
// there is none, -4 for an error reply when error replies are opted in, or
// `always` for the commands whose refusal must never pass for an answer
// (its text kept for last_error()), else 0.
int Messager::verdict(const redisReply* r, int missing, bool always)
{
    if (!r)
        return missing;
    if (!(error_replies || always) || r->type != REDIS_REPLY_ERROR)
        return 0;
    refusal.assign(r->str, r->len);
    return -4;
}

int Messager::set(const char* key, const char* value)
{
    if (!ensure_connected())
        return -1;
    return verdict(command(context, "SET %s %s", key, value).get(), -7);
}

int Messager::set(const char* key, int value)
{
    if (!ensure_connected())
        return -1;
    return verdict(command(context, "SET %s %d", key, value).get(), -7);
}

int Messager::set(const char* key, float value)
{
    if (!ensure_connected())
        return -1;
    return verdict(command(context, "SET %s %f", key, static_cast<double>(value)).get(), -7);
}

int Messager::set(const char* key, unsigned long value)
{
    if (!ensure_connected())
        return -1;
    return verdict(command(context, "SET %s %llu", key, static_cast<unsigned long long>(value)).get(), -7);
}

// The steps every get shares: connect, GET, and the code for a missing
// reply. The caller owns the reply.
redisReply* Messager::fetch(const char* key, int* rc)
{
    if (!ensure_connected()) {
        *rc = -1;
        return nullptr;
    }
    Reply r = command(context, "GET %s", key);
    *rc = verdict(r.get(), -8);
    return *rc == -4 ? nullptr : r.release();
}

int Messager::get(const char* key, char* buffer, int size)
{
    int rc;
    Reply r(fetch(key, &rc));
    // The length is compared as a signed 32-bit number, as callers expect.
    if (r && r->type == REDIS_REPLY_STRING && r->len > 0 && r->len <= INT32_MAX &&
        static_cast<int>(r->len) < size)
        memcpy(buffer, r->str, r->len);
    return rc;
}

int Messager::get(const char* key, int* value)
{
    int rc;
    Reply r(fetch(key, &rc));
    if (r && r->type == REDIS_REPLY_INTEGER)
        *value = static_cast<int>(static_cast<uint32_t>(r->integer));
    return rc;
}

int Messager::get(const char* key, float* value)
{
    int rc;
    Reply r(fetch(key, &rc));
    if (r && r->type == REDIS_REPLY_STRING)
        *value = static_cast<float>(strtod(r->str, nullptr));
    return rc;
}

int Messager::get(const char* key, unsigned long* value)
{
    int rc;
    Reply r(fetch(key, &rc));
    if (r && r->type == REDIS_REPLY_INTEGER)
        *value = static_cast<unsigned long>(r->integer);
    return rc;
}

int Messager::list_send(const char* key, const char* format, va_list args)
{
    if (!ensure_connected())
        return -1;
    char cmd[template_size];
    if (!build_template(cmd, "LPUSH", key, format))
        return -2;
    return verdict(vcommand(context, cmd, args).get(), -2);
}

int Messager::list_send(const char* key, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    int rc = list_send(key, format, ap);
    va_end(ap);
    return rc;
}

int Messager::list_recv(const char* key, char* buffer, int size, int timeout, char* key_out,
                        int key_size)
{
    if (!ensure_connected())
        return -1;
    Reply r = timeout > 0 ? command(context, "BRPOP %s %d", key, timeout)
                          : command(context, "RPOP %s", key);
    if (const int rc = verdict(r.get(), -3))
        return rc;

    if (r->type == REDIS_REPLY_STRING) {
        if (!fits(r->len, size))
            return -5;
        if (r->len)
            memcpy(buffer, r->str, r->len);
        return write_key(key_out, key_size, key, static_cast<int>(r->len));
    }
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return 0;

    const redisReply* from = r->element[0];
    const redisReply* value = r->element[1];
    if (from->type != REDIS_REPLY_STRING || value->type != REDIS_REPLY_STRING)
        return -6;
    if (!fits(value->len, size))
        return -5;
    if (value->len)
        memcpy(buffer, value->str, value->len);
    return write_key(key_out, key_size, from->str, static_cast<int>(value->len));
}

int Messager::list_size(const char* key)
{
    if (!ensure_connected())
        return -1;
    Reply r = command(context, "LLEN %s", key);
    const int rc = verdict(r.get(), -3);
    return rc ? rc : static_cast<int>(r->integer);
}

int Messager::list_clear(const char* key)
{
    if (!ensure_connected())
        return -1;
    Reply r = command(context, "DEL %s", key);
    const int rc = verdict(r.get(), -3);
    return rc ? rc : static_cast<int>(r->integer);
}

#define BMSG_FORWARD_VA(call)        \
    va_list ap;                      \
    va_start(ap, format);            \
    int rc = call;                   \
    va_end(ap);                      \
    return rc

int Messager::device_cmd_send(const char* format, ...)
{
    BMSG_FORWARD_VA(list_send(device_cmd, format, ap));
}

int Messager::bio_cmd_send(const char* format, ...)
{
    BMSG_FORWARD_VA(list_send(bio_cmd, format, ap));
}

int Messager::bio_info_send(const char* format, ...)
{
    BMSG_FORWARD_VA(list_send(bio_info, format, ap));
}

int Messager::bio_resp_send(const char* format, ...)
{
    BMSG_FORWARD_VA(list_send(bio_resp, format, ap));
}

int Messager::system_publish(const char* format, ...)
{
    BMSG_FORWARD_VA(publish(system_status, format, ap));
}

#undef BMSG_FORWARD_VA

int Messager::publish(const char* channel, const char* format, va_list args)
{
    if (!ensure_connected())
        return -1;
    char cmd[template_size];
    if (!build_template(cmd, "PUBLISH", channel, format))
        return -2;
    Reply r = vcommand(context, cmd, args);
    const int rc = verdict(r.get(), -2);
    return rc ? rc : static_cast<int>(r->integer);
}

int Messager::publish(const char* channel, const char* format, ...)
{
    if (!ensure_connected())
        return -1;
    char cmd[template_size];
    if (!build_template(cmd, "PUBLISH", channel, format))
        return -2;
    va_list ap;
    va_start(ap, format);
    Reply r = vcommand(context, cmd, ap);
    va_end(ap);
    if (!r)
        BMSG_REPORT("publish", "publish error: %s", "reply is NULL");
    if (const int rc = verdict(r.get(), -2))
        return rc;
    const int receivers = static_cast<int>(r->integer);
    if (receivers < 0)
        BMSG_REPORT("publish", "publish error: %s", r->str ? r->str : "");
    return receivers;
}

int Messager::subscribe(const char* channel, MessageCallback callback)
{
    if (!ensure_connected())
        return -1;
    // A refused SUBSCRIBE leaves the connection out of subscriber mode: no
    // message would ever come, so it is -4 whatever set_error_replies says.
    if (const int rc = verdict(command(context, "SUBSCRIBE %s", channel).get(), -3, true))
        return rc;
    for (;;) {
        void* raw = nullptr;
        if (redisGetReply(context, &raw) != REDIS_OK)
            return 0;
        Reply r = take_reply(raw);
        if (r && is_message(r.get())) {
            const redisReply* payload = r->element[2];
            callback(channel, payload->str, payload->len, nullptr);
        }
    }
}

} // namespace bMSG
