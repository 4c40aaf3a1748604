#include "bimage.h"

#include <cstring>

namespace BImage {

namespace {

constexpr unsigned char magic[4] = {'B', 'I', 'M', 'G'};
constexpr uint16_t version = 1;
constexpr int hashed_length = 28;

void put16(unsigned char* p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void put32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

uint16_t get16(const unsigned char* p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

uint32_t get32(const unsigned char* p)
{
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

// FNV-1a: any single changed byte changes the hash, which is what tells a
// header from stray bytes.
uint32_t fnv1a(const unsigned char* p, int n)
{
    uint32_t h = 2166136261u;
    for (int i = 0; i < n; ++i)
        h = (h ^ p[i]) * 16777619u;
    return h;
}

} // namespace

const unsigned char* Image::format_header() const
{
    unsigned char* h = header_bytes;
    memcpy(h, magic, sizeof magic);
    put16(h + 4, version);
    put16(h + 6, header_size);
    put32(h + 8, static_cast<uint32_t>(width));
    put32(h + 12, static_cast<uint32_t>(height));
    put32(h + 16, static_cast<uint32_t>(format));
    put32(h + 20, static_cast<uint32_t>(count()));
    put32(h + 24, 0);
    put32(h + 28, fnv1a(h, hashed_length));
    return h;
}

int Image::parse_image_header(const unsigned char* header, unsigned int& width,
                              unsigned int& height, unsigned long& size, ImageFormat& format)
{
    if (!header || memcmp(header, magic, sizeof magic) != 0 || get16(header + 4) != version ||
        get16(header + 6) != header_size || get32(header + 24) != 0 ||
        get32(header + 28) != fnv1a(header, hashed_length))
        return 0;
    const uint32_t w = get32(header + 8);
    const uint32_t h = get32(header + 12);
    const auto f = static_cast<ImageFormat>(static_cast<int32_t>(get32(header + 16)));
    const uint32_t length = get32(header + 20);
    // The length must agree with the other fields as count() computes it; a
    // record on borrowed data computes it without allocating.
    unsigned char borrowed = 0;
    const Image probe(static_cast<int>(w), static_cast<int>(h), f, &borrowed);
    if (static_cast<uint32_t>(probe.count()) != length)
        return 0;
    width = w;
    height = h;
    size = length;
    format = f;
    return 1;
}

} // namespace BImage
