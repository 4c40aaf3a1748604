// The biometric sample operations of Messager: pixels through the
// modality's shared-memory segment, the 32-byte header through its list.
#include "bmessager.h"

#include "bimage.h"
#include "bmsg_internal.h"
#include "bshmem.h"

#include <sys/file.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace bMSG {

namespace {

// Payload layout of a sample segment: the image header, then the pixels.
constexpr size_t sample_header = BImage::Image::header_size;

// The modality's segment as a receiver maps it, opened on first use, with
// room for `capacity` payload bytes; null when that cannot be had. A cached
// mapping costs one fstat (SharedMemory::follow). A cached entry is dropped
// only when its name cannot be opened any more.
SharedMemory* receiver_segment(Messager& bus, const std::string& modality, size_t capacity)
{
    auto found = bus.segments.find(modality);
    if (found == bus.segments.end()) {
        std::unique_ptr<SharedMemory> segment(
            new SharedMemory("/" + std::string(bus.bio_sample) + modality, capacity, false));
        if (!segment->addr)
            return nullptr;
        found = bus.segments.emplace(modality, segment.get()).first;
        segment.release();
    }
    SharedMemory* segment = found->second;
    if (segment->follow(capacity))
        return segment;
    if (!segment->addr) {
        delete segment;
        bus.segments.erase(found);
    }
    return nullptr;
}

// What became of one sample taken out of its segment.
enum class Taken { done, missing, other };

// Calls `use` with the pixels (`length` bytes) of the image `descriptor`
// (32 bytes) describes, under the segment lock, when the segment still holds
// that image: its header at payload offset 0 equals the descriptor. A sender
// clears that header before it touches the pixels and writes it back only
// once they are all written, so a write that did not finish (a fill that
// threw, a sender killed in its copy) never matches.
Taken take_sample(Messager& bus, const std::string& modality, const char* descriptor,
                  size_t length, const std::function<void(const unsigned char*)>& use)
{
    SharedMemory* segment = receiver_segment(bus, modality, sample_header + length);
    if (!segment)
        return Taken::missing;
    bool same = false;
    segment->read(sample_header + length, 0, [&](const unsigned char* payload) {
        same = memcmp(payload, descriptor, sample_header) == 0;
        if (same)
            use(payload + sample_header);
    });
    return same ? Taken::done : Taken::other;
}

// Decodes a descriptor; false when it is not one. A parser that succeeds
// without setting the format leaves NV12 (3).
bool parse_descriptor(const char* d, size_t n, int& width, int& height,
                      BImage::ImageFormat& format, size_t& length)
{
    unsigned int w = 0;
    unsigned int h = 0;
    unsigned long size = 0;
    format = BImage::NV12;
    // parse_image_header reads 32 bytes: a shorter value must not reach it.
    if (n != sample_header ||
        BImage::Image::parse_image_header(reinterpret_cast<const unsigned char*>(d), w, h, size,
                                          format) < 1)
        return false;
    width = static_cast<int>(w);
    height = static_cast<int>(h);
    length = size;
    return true;
}

// Writes the modality NUL-terminated into out; false when it does not fit
// (or there is no room at all).
bool copy_modality(char* out, int len, const std::string& modality)
{
    return out && len > 0 && snprintf(out, static_cast<size_t>(len), "%s", modality.c_str()) < len;
}

// Decodes a descriptor, allocates the image and copies its pixels out of the
// modality's segment, opening that segment on first use. Null after a
// report; `taken` (when given) tells a missing segment from one that holds
// another image.
BImage::Image* load_sample(Messager& bus, const char* func, const char* descriptor, size_t length,
                           const std::string& modality, Taken* taken = nullptr)
{
    int width = 0;
    int height = 0;
    BImage::ImageFormat format;
    size_t size = 0;
    if (!parse_descriptor(descriptor, length, width, height, format, size)) {
        BMSG_REPORT(func, "load image failed");
        return nullptr;
    }
    std::unique_ptr<BImage::Image> image(new BImage::Image(width, height, format, nullptr));
    if (!image->data && image->count() != 0) {
        BMSG_REPORT(func, "load image failed");
        return nullptr;
    }
    const Taken t = take_sample(bus, modality, descriptor, size, [&](const unsigned char* pixels) {
        if (size)
            memcpy(image->data, pixels, size);
    });
    if (taken)
        *taken = t;
    if (t == Taken::missing)
        BMSG_REPORT(func, "shared memory is invalid");
    if (t == Taken::other)
        BMSG_REPORT(func, "shared memory holds another image");
    return t == Taken::done ? image.release() : nullptr;
}

} // namespace

int Messager::bio_sample_send(const char* modality, BImage::Image* image)
{
    if (!ensure_connected())
        return -1;
    if (!image || image->count() < 0 || (!image->data && image->count() != 0))
        return -10;
    const size_t length = static_cast<size_t>(image->count());
    return put_sample(modality, length, image->format_header(), [&](unsigned char* pixels) {
        if (length)
            memcpy(pixels, image->data, length);
    });
}

// The sender's segment of a modality with room for `capacity` bytes:
// created or attached on first use (with the object's segment mode, when
// one is set), then one fstat per send; grown when an image needs more.
// Null when it cannot be grown.
SharedMemory* Messager::sender_segment(const std::string& name, size_t capacity)
{
    auto found = segments.find(name);
    if (found == segments.end()) {
        std::unique_ptr<SharedMemory> segment(
            new SharedMemory("/" + std::string(bio_sample) + name, capacity, true, segment_mode));
        found = segments.emplace(name, segment.get()).first;
        segment.release();
    }
    return found->second->reserve(capacity) ? found->second : nullptr;
}

namespace {

// Holds flock(LOCK_EX) on a segment, if it could be had at once: the lock
// senders with back-pressure take around their LLEN, write and push.
// Receivers never take it, so its holder may wait on the network.
class SenderLock {
public:
    explicit SenderLock(int fd) : fd_(fd), held_(flock(fd, LOCK_EX | LOCK_NB) == 0) {}
    ~SenderLock()
    {
        if (held_)
            flock(fd_, LOCK_UN);
    }
    SenderLock(const SenderLock&) = delete;
    SenderLock& operator=(const SenderLock&) = delete;
    explicit operator bool() const { return held_; }

private:
    int fd_;
    bool held_;
};

} // namespace

int Messager::put_sample(const std::string& name, size_t length, const unsigned char* header,
                         const std::function<void(unsigned char*)>& pixels)
{
    // The key goes into the push's command text, where a blank would split it.
    if (name.find(' ') != std::string::npos)
        return -2;
    const std::string key = bio_sample + name;
    const auto write_and_push = [&](SharedMemory* segment) {
        // The header is cleared before the pixels change and written last,
        // all in one hold of the lock: whatever stops the write halfway
        // leaves a header no descriptor matches. The fences keep the
        // compiler from moving the stores across each other.
        segment->write(sample_header + length, 0, [&](unsigned char* payload) {
            memset(payload, 0, sample_header);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            pixels(payload + sample_header);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            memcpy(payload, header, sample_header);
        });
        return list_send(key.c_str(), "%b", header, sample_header);
    };
    // LLEN, write and push under the senders' lock, so that another sender
    // that asks after us sees our descriptor; the segment mutex is held only
    // for the copy, never across a round trip. The segment is looked at
    // again each round: its creator may have ended while we waited.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(backpressure);
    for (;;) {
        SharedMemory* segment = sender_segment(name, sample_header + length);
        if (!segment)
            return -13;
        if (backpressure < 0)
            return write_and_push(segment);
        if (const SenderLock senders{segment->fd}) {
            const int queued = queued_samples(key);
            if (queued < 0)
                return queued;
            if (queued == 0)
                return write_and_push(segment);
        }
        if (std::chrono::steady_clock::now() >= end)
            return -12;
        sleep_ms(2);
    }
}

// LLEN of a sample list for back-pressure: an error reply is a refusal
// (-4, whatever set_error_replies says), never "nothing queued".
int Messager::queued_samples(const std::string& key)
{
    if (!ensure_connected())
        return -1;
    Reply r = command(context, "LLEN %b", key.data(), key.size());
    const int rc = verdict(r.get(), -3, true);
    return rc ? rc : static_cast<int>(r->integer);
}

int Messager::bio_sample_loan(const char* modality, int width, int height,
                              BImage::ImageFormat format, const SampleFill& fill)
{
    if (!ensure_connected())
        return -1;
    unsigned char borrowed = 0;  // the shape's pixels: none is allocated
    const BImage::Image shape(width, height, format, &borrowed);
    if (shape.count() <= 0)
        return -10;
    const size_t length = static_cast<size_t>(shape.count());
    return put_sample(modality, length, shape.format_header(),
                      [&](unsigned char* pixels) { fill(pixels, length); });
}

int Messager::pop_sample(const std::vector<const char*>& modalities, int timeout, char* out,
                         int len, std::string& modality, std::string& descriptor,
                         std::string* why)
{
    if (!ensure_connected())
        return -1;
    if (modalities.empty())
        return 0;
    // Each modality's list is its own key, so the first descriptor pushed to
    // any of them is taken.
    std::vector<std::string> keys;
    for (const char* m : modalities)
        keys.push_back(bio_sample + std::string(m));
    std::vector<const char*> argv{"BRPOP"};
    std::vector<size_t> lengths{5};
    for (const std::string& k : keys) {
        argv.push_back(k.c_str());
        lengths.push_back(k.size());
    }
    const std::string seconds = std::to_string(timeout);
    argv.push_back(seconds.c_str());
    lengths.push_back(seconds.size());
    Reply r = command_argv(context, static_cast<int>(argv.size()), argv.data(), lengths.data());
    if (const int rc = verdict(r.get(), -3, true)) {
        if (rc == -4 && why)
            *why = "pop refused: " + refusal;
        return rc;
    }
    if (r->type == REDIS_REPLY_NIL)
        return 0;
    char text[64];
    const redisReply* bad = r->type != REDIS_REPLY_ARRAY || r->elements != 2 ? r.get()
                            : r->element[0]->type != REDIS_REPLY_STRING      ? r->element[0]
                            : r->element[1]->type != REDIS_REPLY_STRING      ? r->element[1]
                                                                             : nullptr;
    if (bad) {
        snprintf(text, sizeof text, "bad data type: %d", bad->type);
        if (why)
            *why = text;
        return -6;
    }
    const redisReply* key = r->element[0];
    const size_t prefix = strlen(bio_sample);
    if (key->len < prefix || strncmp(key->str, bio_sample, prefix) != 0) {
        if (why)
            *why = "bad modality: " + std::string(key->str, key->len);
        return -6;
    }
    modality.assign(key->str + prefix, key->len - prefix);
    descriptor.assign(r->element[1]->str, r->element[1]->len);
    return out && !copy_modality(out, len, modality) ? -5 : 1;
}

int Messager::view_sample(const std::string& modality, const std::string& descriptor,
                          const std::function<bool(int, int, BImage::ImageFormat, size_t)>& prepare,
                          const SampleView& view)
{
    int width = 0;
    int height = 0;
    BImage::ImageFormat format;
    size_t length = 0;
    if (!parse_descriptor(descriptor.data(), descriptor.size(), width, height, format, length))
        return -6;
    if (prepare && !prepare(width, height, format, length))
        return -10;
    const Taken t = take_sample(*this, modality, descriptor.data(), length,
                                [&](const unsigned char* pixels) { view(width, height, format, pixels); });
    return t == Taken::done ? 1 : t == Taken::missing ? -9 : -11;
}

int Messager::bio_sample_view(const std::vector<const char*>& modalities, int timeout,
                              const SampleView& view, char* out, int len)
{
    std::string modality;
    std::string descriptor;
    const int rc = pop_sample(modalities, timeout, out, len, modality, descriptor);
    return rc == 1 ? view_sample(modality, descriptor, nullptr, view) : rc;
}

int Messager::bio_sample_recv_into(const std::vector<const char*>& modalities, int timeout,
                                   BImage::Image& image, char* out, int len)
{
    std::string modality;
    std::string descriptor;
    const int rc = pop_sample(modalities, timeout, out, len, modality, descriptor);
    if (rc != 1)
        return rc;
    // The image changes only once the copy is done: a longer image goes to
    // a new block, adopted on success and freed on every failure.
    std::unique_ptr<void, decltype(&free)> fresh(nullptr, &free);
    unsigned char* target = image.data;
    size_t copy = 0;
    const int have = image.count();
    const int got = view_sample(
        modality, descriptor,
        [&](int, int, BImage::ImageFormat, size_t length) {
            copy = length;
            if (length == 0 || (image.data && have >= 0 && static_cast<size_t>(have) >= length))
                return true;
            void* block = nullptr;
            if (posix_memalign(&block, 16, length) != 0)
                return false;
            fresh.reset(block);
            target = static_cast<unsigned char*>(block);
            return true;
        },
        [&](int width, int height, BImage::ImageFormat format, const unsigned char* pixels) {
            if (copy)
                memcpy(target, pixels, copy);
            image.width = width;
            image.height = height;
            image.format = format;
        });
    if (got == 1 && fresh) {
        // A record frees its own block with free(); caller data is never freed.
        if (image.buffer)
            free(image.buffer);
        image.buffer = fresh.release();
        image.data = static_cast<unsigned char*>(image.buffer);
    }
    return got;
}

// The receives that return an image: one pop on every modality's own list,
// each failure reported under `func`, then the pixels copied out. The
// modality goes to `out` when it is given.
BImage::Image* Messager::receive(const char* func, const std::vector<const char*>& modalities,
                                 int timeout, char* out, int len)
{
    std::string modality;
    std::string descriptor;
    std::string why;
    const int rc = pop_sample(modalities, timeout, nullptr, 0, modality, descriptor, &why);
    if (!why.empty())
        BMSG_REPORT(func, "%s", why.c_str());
    if (rc != 1)
        return nullptr;
    if ((out || len) && !copy_modality(out, len, modality)) {
        BMSG_REPORT(func, "buffer size too small: %d", len);
        return nullptr;
    }
    return load_sample(*this, func, descriptor.data(), descriptor.size(), modality);
}

BImage::Image* Messager::bio_sample_recv_any(const std::vector<const char*>& modalities,
                                             int timeout, char* out, int len)
{
    return receive("bio_sample_recv_any", modalities, timeout, out, len);
}

BImage::Image* Messager::bio_sample_recv(const char* modality, int timeout)
{
    return receive("bio_sample_recv", {modality}, timeout, nullptr, 0);
}

BImage::Image* Messager::bio_sample_recv(std::vector<const char*> modalities, int timeout,
                                         char* out, int len)
{
    return receive("bio_sample_recv", modalities, timeout, out, len);
}

BImage::Image* Messager::bio_sample_read(const char* modality)
{
    if (!ensure_connected())
        return nullptr;
    const std::string key = bio_sample + std::string(modality);
    Reply r = command(context, "LRANGE %s -1 -1", key.c_str());
    if (!r || r->type == REDIS_REPLY_NIL)
        return nullptr;
    // With error replies on, a refusal is reported as one and is no reason
    // to drop the connection.
    if (verdict(r.get(), 0) == -4) {
        BMSG_REPORT("bio_sample_read", "read refused: %s", refusal.c_str());
        return nullptr;
    }
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
    Taken taken = Taken::done;
    BImage::Image* image = load_sample(*this, "bio_sample_read", descriptor->str, descriptor->len, modality, &taken);
    // A descriptor whose segment is gone, or whose image the segment no
    // longer holds, would be read again and again. A rejected one is removed
    // by its bytes, the oldest copy, so a descriptor another receiver took
    // meanwhile never costs the next one its place.
    Reply removed = taken == Taken::missing ? command(context, "RPOP %s", key.c_str())
                    : taken == Taken::other
                        ? command(context, "LREM %s -1 %b", key.c_str(), descriptor->str, descriptor->len)
                        : nullptr;
    // A role that may only look (no RPOP, no LREM) leaves it there: say so.
    if (verdict(removed.get(), 0) == -4)
        BMSG_REPORT("bio_sample_read", "descriptor kept, removal refused: %s", refusal.c_str());
    return image;
}

void Messager::keep_segment(const char* modality)
{
    const auto found = segments.find(modality);
    if (found != segments.end())
        found->second->owner = false;
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
