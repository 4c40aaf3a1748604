// Pictures for the bmsg tool and the demo: PNG and binary PGM/PPM files in,
// PNG files out, and the conversion between them and BImage::Image records.
#ifndef BMSG_TOOLS_PICTURE_H
#define BMSG_TOOLS_PICTURE_H

#include "bimage.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace picture {

// 8-bit pixels, rows back to back: 1 channel (grey) or 3 (RGB).
struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;
    std::vector<unsigned char> pixels;
};

// Reads a PNG (any colour type and depth: grey stays grey, colour becomes
// RGB, alpha is dropped, 16-bit is cut to 8) or a binary PGM (P5) / PPM (P6)
// with a maximum value up to 255. Returns false and sets `error` to a short
// reason on failure.
bool read_file(const std::string& path, Picture& out, std::string& error);

// Writes a grey or RGB picture as PNG, to a new file at `path` (removed
// again on failure) or to an open stream. False with `error` set on failure.
bool write_png(const std::string& path, const Picture& picture, std::string& error);
bool write_png(FILE* out, const Picture& picture, std::string& error);

// A new image record holding a copy of the pixels: GRAY8 for grey, RGB24 for
// RGB. Null when the record could not allocate them.
std::unique_ptr<BImage::Image> to_image(const Picture& picture);

// GRAY8 and RGB24 as they are; every other format as its luma plane (the Y
// plane of NV12/NV21/I420/YUYV, the high byte of GRAY16, the weighted sum of
// BGR24/RGBA32/BGRA32). False for an unknown format or missing pixels.
bool from_image(const BImage::Image& image, Picture& out);

// from_image() of `pixels` as an image of that shape, read where they are.
// False also when they are not the shape's count() bytes.
bool from_pixels(const std::string& pixels, int width, int height, BImage::ImageFormat format, Picture& out);

// "GRAY8", "RGB24", ... or "format N".
std::string format_name(int format);

} // namespace picture

#endif
