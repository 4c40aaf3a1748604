// The biometric sample operations of Messager: pixels through the
// modality's shared-memory segment, the 32-byte header through its list.
#include "bmessager.h"

#include "bimage.h"
#include "bmsg_internal.h"
#include "bshmem.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace bMSG {

namespace {

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
