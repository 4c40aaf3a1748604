#include "picture.h"

#include <png.h>

#include <cstdio>
#include <cstring>
#include <fstream>

namespace picture {

namespace {

// png_image owns libpng state between begin and finish; this frees it on
// every exit path.
struct PngImage {
    png_image image;
    PngImage()
    {
        memset(&image, 0, sizeof image);
        image.version = PNG_IMAGE_VERSION;
    }
    ~PngImage() { png_image_free(&image); }
};

bool read_png(const std::string& path, Picture& out, std::string& error)
{
    PngImage png;
    if (!png_image_begin_read_from_file(&png.image, path.c_str())) {
        error = png.image.message;
        return false;
    }
    const bool colour = (png.image.format & PNG_FORMAT_FLAG_COLOR) != 0;
    png.image.format = colour ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
    out.width = static_cast<int>(png.image.width);
    out.height = static_cast<int>(png.image.height);
    out.channels = colour ? 3 : 1;
    out.pixels.resize(PNG_IMAGE_SIZE(png.image));
    if (!png_image_finish_read(&png.image, nullptr, out.pixels.data(), 0, nullptr)) {
        error = png.image.message;
        return false;
    }
    return true;
}

// The next header field of a PNM file: skips blanks and '#' comments.
bool pnm_field(std::istream& in, long& value)
{
    for (int c = in.peek(); c != EOF; c = in.peek()) {
        if (c == '#')
            in.ignore(1 << 20, '\n');
        else if (isspace(c))
            in.get();
        else
            break;
    }
    return static_cast<bool>(in >> value);
}

bool read_pnm(const std::string& path, Picture& out, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    char magic[2] = {};
    in.read(magic, 2);
    long width = 0, height = 0, maxval = 0;
    if (!in || magic[0] != 'P' || (magic[1] != '5' && magic[1] != '6') ||
        !pnm_field(in, width) || !pnm_field(in, height) || !pnm_field(in, maxval)) {
        error = "not a PNG, PGM (P5) or PPM (P6) file";
        return false;
    }
    if (width <= 0 || height <= 0 || width > 65535 || height > 65535 || maxval <= 0 ||
        maxval > 255) {
        error = "unsupported size or maximum value (1 to 255)";
        return false;
    }
    in.get();  // the one blank after the maximum value
    out.width = static_cast<int>(width);
    out.height = static_cast<int>(height);
    out.channels = magic[1] == '5' ? 1 : 3;
    out.pixels.resize(static_cast<size_t>(width) * height * out.channels);
    in.read(reinterpret_cast<char*>(out.pixels.data()), static_cast<std::streamsize>(out.pixels.size()));
    if (!in) {
        error = "pixel data cut short";
        return false;
    }
    if (maxval != 255)
        for (unsigned char& p : out.pixels)
            p = static_cast<unsigned char>(p > maxval ? 255 : p * 255 / maxval);
    return true;
}

unsigned char luma(int r, int g, int b)
{
    return static_cast<unsigned char>((77 * r + 150 * g + 29 * b) >> 8);
}

// count() without the 32-bit wrap.
size_t unwrapped_bytes(BImage::ImageFormat format, size_t pixels)
{
    switch (format) {
    case BImage::GRAY8:
        return pixels;
    case BImage::RGB24:
    case BImage::BGR24:
        return pixels * 3;
    case BImage::NV12:
    case BImage::NV21:
    case BImage::I420:
        return pixels * 3 / 2;
    case BImage::YUYV:
    case BImage::GRAY16:
        return pixels * 2;
    case BImage::RGBA32:
    case BImage::BGRA32:
        return pixels * 4;
    }
    return 0;
}

} // namespace

bool read_file(const std::string& path, Picture& out, std::string& error)
{
    unsigned char signature[8] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = strerror(errno);
        return false;
    }
    in.read(reinterpret_cast<char*>(signature), sizeof signature);
    if (in.gcount() == sizeof signature && png_sig_cmp(signature, 0, sizeof signature) == 0)
        return read_png(path, out, error);
    return read_pnm(path, out, error);
}

bool write_png(FILE* out, const Picture& picture, std::string& error)
{
    PngImage png;
    png.image.width = static_cast<png_uint_32>(picture.width);
    png.image.height = static_cast<png_uint_32>(picture.height);
    png.image.format = picture.channels == 3 ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
    if (!png_image_write_to_stdio(&png.image, out, 0, picture.pixels.data(), 0, nullptr)) {
        error = png.image.message;
        return false;
    }
    if (fflush(out) != 0) {
        error = strerror(errno);
        return false;
    }
    return true;
}

bool write_png(const std::string& path, const Picture& picture, std::string& error)
{
    std::unique_ptr<FILE, int (*)(FILE*)> out(fopen(path.c_str(), "wb"), fclose);
    if (!out) {
        error = strerror(errno);
        return false;
    }
    if (write_png(out.get(), picture, error))
        return true;
    out.reset();
    remove(path.c_str());
    return false;
}

std::unique_ptr<BImage::Image> to_image(const Picture& picture)
{
    const auto format = picture.channels == 3 ? BImage::RGB24 : BImage::GRAY8;
    std::unique_ptr<BImage::Image> image(
        new BImage::Image(picture.width, picture.height, format, nullptr));
    if (!image->data || static_cast<size_t>(image->count()) != picture.pixels.size())
        return nullptr;
    memcpy(image->data, picture.pixels.data(), picture.pixels.size());
    return image;
}

bool from_image(const BImage::Image& image, Picture& out)
{
    const int length = image.count();
    if (image.width <= 0 || image.height <= 0 || length <= 0 || !image.data)
        return false;
    const size_t pixels = static_cast<size_t>(image.width) * image.height;
    // count() wraps at 2^32; a record whose true size wrapped cannot be read.
    if (unwrapped_bytes(image.format, pixels) != static_cast<size_t>(length))
        return false;
    const unsigned char* d = image.data;
    out.width = image.width;
    out.height = image.height;
    out.channels = image.format == BImage::RGB24 ? 3 : 1;
    out.pixels.resize(pixels * out.channels);
    unsigned char* p = out.pixels.data();
    switch (image.format) {
    case BImage::GRAY8:
    case BImage::RGB24:
    case BImage::NV12:
    case BImage::NV21:
    case BImage::I420:
        memcpy(p, d, out.pixels.size());
        break;
    case BImage::YUYV:
        for (size_t i = 0; i < pixels; ++i)
            p[i] = d[2 * i];
        break;
    case BImage::GRAY16:
        for (size_t i = 0; i < pixels; ++i)
            p[i] = d[2 * i + 1];  // little-endian: the high byte second
        break;
    case BImage::BGR24:
        for (size_t i = 0; i < pixels; ++i)
            p[i] = luma(d[3 * i + 2], d[3 * i + 1], d[3 * i]);
        break;
    case BImage::RGBA32:
        for (size_t i = 0; i < pixels; ++i)
            p[i] = luma(d[4 * i], d[4 * i + 1], d[4 * i + 2]);
        break;
    case BImage::BGRA32:
        for (size_t i = 0; i < pixels; ++i)
            p[i] = luma(d[4 * i + 2], d[4 * i + 1], d[4 * i]);
        break;
    default:
        return false;
    }
    return true;
}

bool from_pixels(const std::string& pixels, int width, int height, BImage::ImageFormat format, Picture& out)
{
    // The record borrows the bytes and from_image() only reads them.
    const BImage::Image image(width, height, format,
                              reinterpret_cast<unsigned char*>(const_cast<char*>(pixels.data())));
    return pixels.size() == static_cast<size_t>(image.count()) && from_image(image, out);
}

std::string format_name(int format)
{
    static const char* const names[] = {"GRAY8", "RGB24",  "BGR24", "NV12", "YUYV",
                                        "RGBA32", "BGRA32", "NV21",  "I420", "GRAY16"};
    if (format >= 0 && format < static_cast<int>(sizeof names / sizeof *names))
        return names[format];
    return "format " + std::to_string(format);
}

} // namespace picture
