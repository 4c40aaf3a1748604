// BImage::Image: the image record the biometric samples travel in, as
// provided by libbimage.so. A device build may link its own image library in
// place of libbimage.so (CMake option BMSG_EXTERNAL_BIMAGE); it must keep the
// record layout below, the inline members and the two exported functions.
//
// Image header: 32 bytes made by format_header() and decoded by
// parse_image_header(). Multi-byte fields are little-endian whatever the
// host, written and read byte by byte:
//
//   offset size  field
//   0      4     magic "BIMG" (0x42 0x49 0x4d 0x47)
//   4      2     version, 1
//   6      2     header length, 32
//   8      4     width  (unsigned 32-bit; a negative width is its two's complement)
//   12     4     height (unsigned 32-bit, likewise)
//   16     4     format (ImageFormat value)
//   20     4     pixel length in bytes, count() as unsigned 32-bit
//   24     4     reserved, zero
//   28     4     FNV-1a 32-bit hash of bytes 0 to 27
//
// A header is valid when the magic, version, length, reserved bytes and hash
// match and the pixel length equals count() for its width, height and format.
#ifndef BIMAGE_BIMAGE_H
#define BIMAGE_BIMAGE_H

#include <cstdint>
#include <cstdlib>

#ifndef BIMAGE_API
#define BIMAGE_API __attribute__((visibility("default")))
#endif

namespace BImage {

// Pixel layouts. The numeric values travel in the image header and are fixed.
enum ImageFormat : int32_t {
    GRAY8 = 0,   // 1 byte per pixel
    RGB24 = 1,   // 3 bytes per pixel
    BGR24 = 2,   // 3 bytes per pixel
    NV12 = 3,    // 12 bits per pixel
    YUYV = 4,    // 2 bytes per pixel
    RGBA32 = 5,  // 4 bytes per pixel
    BGRA32 = 6,  // 4 bytes per pixel
    NV21 = 7,    // 12 bits per pixel
    I420 = 8,    // 12 bits per pixel
    GRAY16 = 9,  // 2 bytes per pixel
};

class BIMAGE_API Image {
public:
    // Length of the header made by format_header().
    static constexpr int header_size = 32;

    // Stores the values. With `data` null the record allocates count() bytes
    // itself (16-byte aligned, not cleared) and frees them on destruction;
    // nothing is allocated for an unknown format or a length that is not
    // positive as a signed 32-bit number, or when the allocation fails
    // (`data` then stays null). Caller data is never freed by the record.
    Image(int width_, int height_, ImageFormat format_, unsigned char* data_)
        : data(data_), width(width_), height(height_), format(format_), buffer(nullptr)
    {
        if (data)
            return;
        const int length = count();
        void* block = nullptr;
        if (length > 0 && posix_memalign(&block, 16, static_cast<size_t>(length)) == 0) {
            buffer = block;
            data = static_cast<unsigned char*>(block);
        }
    }

    ~Image()
    {
        if (buffer)
            free(buffer);
    }

    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    // Pixel-buffer length in bytes for the format, in 32-bit unsigned
    // arithmetic (the product wraps at 2^32); 0 for an unknown format.
    int count() const
    {
        const uint32_t pixels = static_cast<uint32_t>(width) * static_cast<uint32_t>(height);
        uint32_t bytes = 0;
        switch (static_cast<int32_t>(format)) {
        case 0:
            bytes = pixels;
            break;
        case 1:
        case 2:
            bytes = pixels * 3u;
            break;
        case 3:
        case 7:
        case 8:
            bytes = (pixels * 3u) >> 1;
            break;
        case 4:
        case 9:
            bytes = pixels * 2u;
            break;
        case 5:
        case 6:
            bytes = pixels * 4u;
            break;
        default:
            break;
        }
        return static_cast<int>(bytes);
    }

    // The 32-byte header describing this record (layout above). The bytes
    // live inside the record and stay valid until the next call on it or
    // its destruction; calls on one record must not overlap across threads.
    const unsigned char* format_header() const;

    // Decodes a 32-byte header made by format_header(). Returns 1 and fills
    // the outputs for a valid header; returns 0 and leaves them untouched
    // when the bytes are not one (or `header` is null). Reads exactly 32
    // bytes from `header`.
    static int parse_image_header(const unsigned char* header, unsigned int& width,
                                  unsigned int& height, unsigned long& size, ImageFormat& format);

    unsigned char* data;  // count() bytes of pixels, rows back to back
    int width;
    int height;
    ImageFormat format;
    void* buffer;         // the block this record allocated (== data), or null

    // Storage of format_header(); public only to keep the record a plain
    // standard-layout one.
    mutable unsigned char header_bytes[header_size];
};

} // namespace BImage

#endif
