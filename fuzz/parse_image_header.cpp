// Fuzzes BImage::Image::parse_image_header against any 32 bytes.
//
// Input: the header, cut or zero-padded to 32 bytes. Each input is parsed
// twice: as it is, and with its hash field recomputed ("sealed"), so that
// the checks behind the hash are reached too. The result must be what the
// header layout in bimage.h says, the outputs must be consistent, and
// format_header() of a record built from them must give the same bytes back.
#include "bimage.h"
#include "harness.h"

#include <cstring>

namespace {

using BImage::Image;

constexpr size_t header_size = Image::header_size;

uint32_t le32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t fnv1a(const unsigned char* p, size_t n)
{
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; ++i)
        h = (h ^ p[i]) * 16777619u;
    return h;
}

// Pixel bytes of a format in the header's 32-bit arithmetic, worked out here
// from the format table rather than through count().
uint32_t pixel_bytes(uint32_t width, uint32_t height, int32_t format)
{
    const uint32_t pixels = width * height;
    switch (format) {
    case 0:
        return pixels;
    case 1:
    case 2:
        return pixels * 3u;
    case 3:
    case 7:
    case 8:
        return (pixels * 3u) >> 1;
    case 4:
    case 9:
        return pixels * 2u;
    case 5:
    case 6:
        return pixels * 4u;
    default:
        return 0;
    }
}

bool is_header(const unsigned char* h)
{
    const auto format = static_cast<int32_t>(le32(h + 16));
    const uint32_t length = pixel_bytes(le32(h + 8), le32(h + 12), format);
    return memcmp(h, "BIMG", 4) == 0 && h[4] == 1 && h[5] == 0 && h[6] == header_size &&
           h[7] == 0 && le32(h + 20) == length && le32(h + 24) == 0 &&
           le32(h + 28) == fnv1a(h, 28);
}

void check(const unsigned char* h)
{
    unsigned int width = 0x5a5a5a5a;
    unsigned int height = 0xa5a5a5a5;
    unsigned long size = 0x5a5aa5a5;
    auto format = static_cast<BImage::ImageFormat>(0x7e7e7e7e);
    const int rc = Image::parse_image_header(h, width, height, size, format);
    BMSG_FUZZ_CHECK(rc == (is_header(h) ? 1 : 0));
    if (rc != 1) {
        BMSG_FUZZ_CHECK(width == 0x5a5a5a5a && height == 0xa5a5a5a5 && size == 0x5a5aa5a5 &&
                        format == 0x7e7e7e7e);
        return;
    }
    BMSG_FUZZ_CHECK(width == le32(h + 8) && height == le32(h + 12) &&
                    static_cast<uint32_t>(format) == le32(h + 16));
    // A known format carries its pixel length; any other carries none.
    BMSG_FUZZ_CHECK(size == pixel_bytes(width, height, format));

    unsigned char borrowed = 0;
    const Image image(static_cast<int>(width), static_cast<int>(height), format, &borrowed);
    BMSG_FUZZ_CHECK(static_cast<uint32_t>(image.count()) == size);
    BMSG_FUZZ_CHECK(memcmp(image.format_header(), h, header_size) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Exactly 32 bytes on the heap, so that a read past them is caught.
    auto h = bmsg_fuzz::block(header_size, '\0');
    memcpy(h.get(), data, std::min(size, header_size));
    const auto* bytes = reinterpret_cast<const unsigned char*>(h.get());
    check(bytes);

    const uint32_t hash = fnv1a(bytes, 28);
    for (int i = 0; i < 4; ++i)
        h[28 + i] = static_cast<char>(hash >> (8 * i));
    check(bytes);

    unsigned int width = 0, height = 0;
    unsigned long length = 0;
    auto format = BImage::NV12;
    BMSG_FUZZ_CHECK(Image::parse_image_header(nullptr, width, height, length, format) == 0);
    return 0;
}
