// Fuzzes BImage::Image::parse_image_header against any 32 bytes (the input
// cut or zero-padded), as they are and sealed: it reads only those bytes,
// leaves the outputs alone when it refuses, accepts only what format_header()
// makes of the decoded fields, and accepts every header format_header() makes.
#include "bimage.h"
#include "harness.h"

#include <cstring>
#include <memory>

using BImage::Image;

namespace {

unsigned char borrowed;  // pixels of the records below: none is allocated

void check(const unsigned char* h)
{
    unsigned int width = 7, height = 7;
    unsigned long size = 7;
    auto format = static_cast<BImage::ImageFormat>(77);
    const bool accepted = Image::parse_image_header(h, width, height, size, format) == 1;
    BMSG_FUZZ_CHECK(accepted || (width == 7 && height == 7 && size == 7 && format == 77));
    if (!accepted)  // the raw fields
        memcpy(&width, h + 8, 4), memcpy(&height, h + 12, 4), memcpy(&format, h + 16, 4);
    const Image made(static_cast<int>(width), static_cast<int>(height), format, &borrowed);
    BMSG_FUZZ_CHECK(!accepted || memcmp(made.format_header(), h, 32) == 0);
    unsigned int w = 0, ht = 0;
    BMSG_FUZZ_CHECK(Image::parse_image_header(made.format_header(), w, ht, size, format) == 1 &&
                    w == width && ht == height && size == static_cast<uint32_t>(made.count()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string bytes(reinterpret_cast<const char*>(data), std::min<size_t>(size, 32));
    bytes.resize(32);
    for (int sealed = 0; sealed < 2; ++sealed, bmsg_fuzz::seal(bytes)) {
        std::unique_ptr<unsigned char[]> h(new unsigned char[32]);  // a read past it is caught
        memcpy(h.get(), bytes.data(), 32);
        check(h.get());
    }
    return 0;
}
