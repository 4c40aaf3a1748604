#include "bmessager.h"

#include "bimage.h"
#include "bmsg_internal.h"
#include "bshmem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
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

void close_on_exec(redisContext* c)
{
    fcntl(c->fd, F_SETFD, FD_CLOEXEC);
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

// Payload layout of a sample segment: the image header, then the pixels.
constexpr size_t sample_header = BImage::Image::header_size;

// Segment capacity for an image, in 32-bit arithmetic like count().
size_t sample_capacity(const BImage::Image& image)
{
    return static_cast<uint32_t>(image.count()) + static_cast<uint32_t>(sample_header);
}

// count() as a length for SharedMemory: a negative count becomes a length no
// segment can hold, so the copy throws instead of running wild.
size_t pixel_length(const BImage::Image& image)
{
    return static_cast<size_t>(image.count());
}

// Whether the segment's object is still as long as the mapping: a copy past
// the end of a segment that someone truncated would raise SIGBUS.
bool intact(const SharedMemory& segment)
{
    struct stat st;
    return fstat(segment.fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= segment.size;
}

// Decodes a descriptor, allocates the image and copies its pixels out of the
// modality's segment, opening that segment on first use. Null after a
// report; `missing` is set when the segment could not be opened.
BImage::Image* load_sample(Messager& bus, const char* func, const redisReply* descriptor,
                           const std::string& modality, bool* missing = nullptr)
{
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned long size = 0;
    // A parser that succeeds without setting the format leaves NV12 (3).
    BImage::ImageFormat format = BImage::NV12;
    // parse_image_header reads 32 bytes: a shorter value must not reach it.
    if (descriptor->len != sample_header ||
        BImage::Image::parse_image_header(reinterpret_cast<const unsigned char*>(descriptor->str),
                                          width, height, size, format) < 1) {
        BMSG_REPORT(func, "load image failed");
        return nullptr;
    }
    std::unique_ptr<BImage::Image> image(
        new BImage::Image(static_cast<int>(width), static_cast<int>(height), format, nullptr));
    if (!image->data && image->count() != 0) {
        BMSG_REPORT(func, "load image failed");
        return nullptr;
    }
    auto found = bus.segments.find(modality);
    if (found != bus.segments.end() && !intact(*found->second)) {
        // Shrunk under us: forget it and open it afresh, as if first used.
        delete found->second;
        bus.segments.erase(found);
        found = bus.segments.end();
    }
    if (found == bus.segments.end()) {
        std::unique_ptr<SharedMemory> segment(new SharedMemory(
            "/" + std::string(bus.bio_sample) + modality, sample_capacity(*image), false));
        if (!segment->addr) {
            BMSG_REPORT(func, "shared memory is invalid");
            if (missing)
                *missing = true;
            return nullptr;
        }
        found = bus.segments.emplace(modality, segment.get()).first;
        segment.release();
    }
    found->second->read(image->data, pixel_length(*image), sample_header);
    return image.release();
}

} // namespace

Messager::Messager(const char* address_, uint16_t port_, int attempts_)
    : context(nullptr),
      attempts(attempts_),
      address(address_ && *address_ ? address_ : "127.0.0.1"),
      port(port_),
      device_cmd("DEVICE_CMD"),
      bio_sample("BIOMETRIC_SAMPLE_"),
      device_status("DEVICE_STATUS"),
      system_status("SYSTEM_STATUS"),
      bio_info("MAIN_BIOMETRIC_INFO"),
      bio_cmd("BIO_CMD"),
      bio_resp("BIOMETRIC_RESP")
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
    const int tries = attempts > 0 ? attempts : 2000000000;
    for (int i = 0; i < tries; ++i) {
        redisContext* c = address[0] == '/' ? redisConnectUnix(address.c_str())
                                            : redisConnect(address.c_str(), port);
        if (!c) {
            BMSG_REPORT("connect", "Can't allocate redis context\n");
        } else if (c->err) {
            BMSG_REPORT("connect", "%s: address[%s] port[%d]", c->errstr, address.c_str(), port);
            redisFree(c);
        } else {
            close_on_exec(c);
            context = c;
            return;
        }
        sleep_ms(1000);
    }
}

bool Messager::ensure_connected()
{
    if (!context)
        connect();
    return context != nullptr;
}

int Messager::set(const char* key, const char* value)
{
    if (!ensure_connected())
        return -1;
    return command(context, "SET %s %s", key, value) ? 0 : -7;
}

int Messager::set(const char* key, int value)
{
    if (!ensure_connected())
        return -1;
    return command(context, "SET %s %d", key, value) ? 0 : -7;
}

int Messager::set(const char* key, float value)
{
    if (!ensure_connected())
        return -1;
    return command(context, "SET %s %f", key, static_cast<double>(value)) ? 0 : -7;
}

int Messager::set(const char* key, unsigned long value)
{
    if (!ensure_connected())
        return -1;
    return command(context, "SET %s %llu", key, static_cast<unsigned long long>(value)) ? 0 : -7;
}

// The steps every get shares: connect, GET, and the code for a missing
// reply. The caller owns the reply.
redisReply* Messager::fetch(const char* key, int* rc)
{
    if (!ensure_connected()) {
        *rc = -1;
        return nullptr;
    }
    redisReply* r = command(context, "GET %s", key).release();
    *rc = r ? 0 : -8;
    return r;
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
    return vcommand(context, cmd, args) ? 0 : -2;
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
    if (!r)
        return -3;

    if (r->type == REDIS_REPLY_STRING) {
        if (!fits(r->len, size))
            return -5;
        if (r->len)
            memcpy(buffer, r->str, r->len);
        return write_key(key_out, key_size, key, static_cast<int>(r->len));
    }
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return 0;

    const redisReply* value = r->element[1];
    if (value->type != REDIS_REPLY_STRING)
        return -6;
    if (!fits(value->len, size))
        return -5;
    if (value->len)
        memcpy(buffer, value->str, value->len);
    const int result = static_cast<int>(value->len);
    if (!key_out || key_size <= 0)
        return result;
    const redisReply* from = r->element[0];
    if (from->type != REDIS_REPLY_STRING)
        return -6;
    return write_key(key_out, key_size, from->str, result);
}

int Messager::list_size(const char* key)
{
    if (!ensure_connected())
        return -1;
    Reply r = command(context, "LLEN %s", key);
    return r ? static_cast<int>(r->integer) : -3;
}

int Messager::list_clear(const char* key)
{
    if (!ensure_connected())
        return -1;
    Reply r = command(context, "DEL %s", key);
    return r ? static_cast<int>(r->integer) : -3;
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
    return r ? static_cast<int>(r->integer) : -2;
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
    if (!r) {
        BMSG_REPORT("publish", "publish error: %s", "reply is NULL");
        return -2;
    }
    const int receivers = static_cast<int>(r->integer);
    if (receivers < 0)
        BMSG_REPORT("publish", "publish error: %s", r->str ? r->str : "");
    return receivers;
}

int Messager::subscribe(const char* channel, MessageCallback callback)
{
    if (!ensure_connected())
        return -1;
    if (!command(context, "SUBSCRIBE %s", channel))
        return -3;
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

int Messager::bio_sample_send(const char* modality, BImage::Image* image)
{
    if (!ensure_connected())
        return -1;
    if (!image || (!image->data && image->count() != 0))
        return -10;
    const std::string name(modality);
    // The key goes into the push's command text, where a blank would split it.
    if (name.find(' ') != std::string::npos)
        return -2;
    auto found = segments.find(name);
    if (found == segments.end()) {
        std::unique_ptr<SharedMemory> segment(
            new SharedMemory("/" + std::string(bio_sample) + name, sample_capacity(*image), true));
        found = segments.emplace(name, segment.get()).first;
        segment.release();
    }
    SharedMemory* segment = found->second;
    // The segment is ours: when someone truncated it, restore it.
    if (!intact(*segment))
        segment->create();
    segment->write(image->data, pixel_length(*image), sample_header);
    const unsigned char* header = image->format_header();
    segment->write(header, sample_header, 0);
    return list_send((bio_sample + name).c_str(), "%b", header, sample_header);
}

BImage::Image* Messager::bio_sample_recv(const char* modality, int timeout)
{
    if (!ensure_connected())
        return nullptr;
    const std::string key = bio_sample + std::string(modality);
    Reply r = command(context, "BRPOP %s %d", key.c_str(), timeout);
    if (!r || r->type == REDIS_REPLY_NIL)
        return nullptr;
    if (r->type != REDIS_REPLY_STRING) {
        BMSG_REPORT("bio_sample_recv", "bad data type: %d", r->type);
        return nullptr;
    }
    return load_sample(*this, "bio_sample_recv", r.get(), modality);
}

BImage::Image* Messager::bio_sample_recv(std::vector<const char*> modalities, int timeout,
                                         char* out, int len)
{
    if (!ensure_connected())
        return nullptr;
    // Nothing to wait on: BRPOP with an empty key would block on a list no
    // sender uses.
    if (modalities.empty())
        return nullptr;
    std::string keys;
    for (const char* m : modalities)
        keys += " " + std::string(bio_sample) + m;
    Reply r = command(context, "BRPOP %s %d", keys.c_str() + 1, timeout);
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return nullptr;

    const redisReply* key = r->element[0];
    if (key->type != REDIS_REPLY_STRING) {
        BMSG_REPORT("bio_sample_recv", "bad data type: %d", key->type);
        return nullptr;
    }
    const size_t prefix = strlen(bio_sample);
    if (key->len < prefix || strncmp(key->str, bio_sample, prefix) != 0) {
        BMSG_REPORT("bio_sample_recv", "bad modality: %s", key->str);
        return nullptr;
    }
    const std::string modality(key->str + prefix, key->len - prefix);
    if (!out || len <= 0 || snprintf(out, static_cast<size_t>(len), "%s", modality.c_str()) >= len) {
        BMSG_REPORT("bio_sample_recv", "buffer size too small: %d", len);
        return nullptr;
    }

    const redisReply* value = r->element[1];
    if (value->type == REDIS_REPLY_NIL)
        return nullptr;
    if (value->type != REDIS_REPLY_STRING) {
        BMSG_REPORT("bio_sample_recv", "bad data type: %d", value->type);
        return nullptr;
    }
    return load_sample(*this, "bio_sample_recv", value, modality);
}

BImage::Image* Messager::bio_sample_read(const char* modality)
{
    if (!ensure_connected())
        return nullptr;
    const std::string key = bio_sample + std::string(modality);
    Reply r = command(context, "LRANGE %s -1 -1", key.c_str());
    if (!r || r->type == REDIS_REPLY_NIL)
        return nullptr;
    if (r->type != REDIS_REPLY_ARRAY) {
        BMSG_REPORT("bio_sample_read", "bad data type: %d, value is INT %lld", r->type,
                    static_cast<long long>(r->integer));
        // The next operation starts on a fresh connection.
        redisFree(context);
        context = nullptr;
        return nullptr;
    }
    if (r->elements == 0)
        return nullptr;
    const redisReply* descriptor = r->element[0];
    if (descriptor->type != REDIS_REPLY_STRING) {
        BMSG_REPORT("bio_sample_read", "bad data type in array: %d", descriptor->type);
        return nullptr;
    }
    bool missing = false;
    BImage::Image* image = load_sample(*this, "bio_sample_read", descriptor, modality, &missing);
    // A descriptor whose segment is gone would be read again and again.
    if (missing)
        command(context, "RPOP %s", key.c_str());
    return image;
}

BImage::Image* Messager::bio_sample_read(std::vector<const char*> modalities, char* out, int len)
{
    for (const char* m : modalities) {
        BImage::Image* image = bio_sample_read(m);
        if (image) {
            if (out && len > 0)
                snprintf(out, static_cast<size_t>(len), "%s", m);
            return image;
        }
    }
    return nullptr;
}

} // namespace bMSG
