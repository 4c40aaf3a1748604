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

// The modality's segment as a receiver maps it, opened on first use with
// room for `capacity` bytes; null when it cannot be opened. A cached mapping
// whose object shrank is opened afresh, and so is one smaller than
// `capacity` when `grow` is set, unless this object made it (reopening
// would unlink it).
SharedMemory* receiver_segment(Messager& bus, const std::string& modality, size_t capacity,
                               bool grow)
{
    auto found = bus.segments.find(modality);
    if (found != bus.segments.end() &&
        (!intact(*found->second) ||
         (grow && !found->second->owner &&
          found->second->size - SharedMemory::header_size < capacity))) {
        // Shrunk under us: forget it and open it afresh, as if first used.
        delete found->second;
        bus.segments.erase(found);
        found = bus.segments.end();
    }
    if (found == bus.segments.end()) {
        std::unique_ptr<SharedMemory> segment(
            new SharedMemory("/" + std::string(bus.bio_sample) + modality, capacity, false));
        if (!segment->addr)
            return nullptr;
        found = bus.segments.emplace(modality, segment.get()).first;
        segment.release();
    }
    return found->second;
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
// report; `missing` is set when the segment could not be opened.
BImage::Image* load_sample(Messager& bus, const char* func, const char* descriptor, size_t length,
                           const std::string& modality, bool* missing = nullptr)
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
    SharedMemory* segment = receiver_segment(bus, modality, sample_capacity(*image), false);
    if (!segment) {
        BMSG_REPORT(func, "shared memory is invalid");
        if (missing)
            *missing = true;
        return nullptr;
    }
    segment->read(image->data, pixel_length(*image), sample_header);
    return image.release();
}

// Makes `image` hold `length` bytes of pixels for the new shape, reusing its
// buffer when its current count() is at least that long. Goes only through
// the record's public fields: a record frees its own block with free().
bool fit_image(BImage::Image& image, int width, int height, BImage::ImageFormat format,
               size_t length)
{
    const int have = image.count();
    if (length > 0 && (!image.data || have < 0 || static_cast<size_t>(have) < length)) {
        void* block = nullptr;
        if (posix_memalign(&block, 16, length) != 0)
            return false;
        if (image.buffer)
            free(image.buffer);
        image.buffer = block;
        image.data = static_cast<unsigned char*>(block);
    }
    image.width = width;
    image.height = height;
    image.format = format;
    return true;
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
    SharedMemory* segment = sender_segment(name, sample_capacity(*image));
    segment->write(image->data, pixel_length(*image), sample_header);
    const unsigned char* header = image->format_header();
    segment->write(header, sample_header, 0);
    return list_send((bio_sample + name).c_str(), "%b", header, sample_header);
}

// The sender's segment of a modality, created on first use with room for
// `capacity` bytes (and the object's segment mode, when one is set).
SharedMemory* Messager::sender_segment(const std::string& name, size_t capacity)
{
    const std::string object = "/" + std::string(bio_sample) + name;
    auto found = segments.find(name);
    if (found == segments.end()) {
        if (segment_mode)
            SharedMemory::restrict_mode(object, segment_mode);
        std::unique_ptr<SharedMemory> segment(new SharedMemory(object, capacity, true));
        found = segments.emplace(name, segment.get()).first;
        segment.release();
    }
    SharedMemory* segment = found->second;
    // The segment is ours: when someone truncated it, restore it.
    if (!intact(*segment)) {
        if (segment_mode)
            SharedMemory::restrict_mode(object, segment_mode);
        segment->create();
    }
    return segment;
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
    const std::string name(modality);
    if (name.find(' ') != std::string::npos)
        return -2;
    const unsigned char* header = shape.format_header();
    SharedMemory* segment = sender_segment(name, sample_header + length);
    // Pixels, then the header in the same lock section: a reader never sees
    // the header of an image whose pixels are not written yet.
    segment->write(sample_header + length, 0, [&](unsigned char* payload) {
        fill(payload + sample_header, length);
        memcpy(payload, header, sample_header);
    });
    return list_send((bio_sample + name).c_str(), "%b", header, sample_header);
}

int Messager::pop_sample(const std::vector<const char*>& modalities, int timeout, char* out,
                         int len, std::string& modality, std::string& descriptor)
{
    if (!ensure_connected())
        return -1;
    if (modalities.empty())
        return 0;
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
    if (const int rc = verdict(r.get(), -3))
        return rc;
    if (r->type == REDIS_REPLY_NIL)
        return 0;
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return -6;
    const redisReply* key = r->element[0];
    const redisReply* value = r->element[1];
    const size_t prefix = strlen(bio_sample);
    if (key->type != REDIS_REPLY_STRING || value->type != REDIS_REPLY_STRING || value->len == 0 ||
        key->len < prefix || strncmp(key->str, bio_sample, prefix) != 0)
        return -6;
    modality.assign(key->str + prefix, key->len - prefix);
    descriptor.assign(value->str, value->len);
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
    SharedMemory* segment = receiver_segment(*this, modality, sample_header + length, true);
    if (!segment || segment->size - SharedMemory::header_size < sample_header + length)
        return -9;
    segment->read(length, sample_header, [&](const unsigned char* pixels) {
        view(width, height, format, pixels);
    });
    return 1;
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
    return view_sample(
        modality, descriptor,
        [&](int width, int height, BImage::ImageFormat format, size_t length) {
            return fit_image(image, width, height, format, length);
        },
        [&](int, int, BImage::ImageFormat, const unsigned char* pixels) {
            if (image.count() > 0)
                memcpy(image.data, pixels, static_cast<size_t>(image.count()));
        });
}

BImage::Image* Messager::bio_sample_recv_any(const std::vector<const char*>& modalities,
                                             int timeout, char* out, int len)
{
    std::string modality;
    std::string descriptor;
    const int rc = pop_sample(modalities, timeout, nullptr, 0, modality, descriptor);
    if (rc == -6)
        BMSG_REPORT("bio_sample_recv_any", "bad data type");
    if (rc != 1)
        return nullptr;
    if (!copy_modality(out, len, modality)) {
        BMSG_REPORT("bio_sample_recv_any", "buffer size too small: %d", len);
        return nullptr;
    }
    return load_sample(*this, "bio_sample_recv_any", descriptor.data(), descriptor.size(),
                       modality);
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
    return load_sample(*this, "bio_sample_recv", r->str, r->len, modality);
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
    if (!copy_modality(out, len, modality)) {
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
    return load_sample(*this, "bio_sample_recv", value->str, value->len, modality);
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
    BImage::Image* image = load_sample(*this, "bio_sample_read", descriptor->str, descriptor->len, modality, &missing);
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
