// bmsg sample: send a picture file as a biometric sample, take or peek at
// the oldest one and write it as PNG.
#include "bmsg_tool.h"
#include "bshmem.h"
#include "picture.h"

#include <cstdio>
#include <stdexcept>

namespace bmsg_tool {

namespace {

std::string modality, file;
int seconds = 0;

int send(const Options& o)
{
    picture::Picture pic;
    std::string error;
    if (!picture::read_file(file, pic, error))
        return fail(file + ": " + error);
    auto image = picture::to_image(pic);
    if (!image)
        return fail(file + ": cannot hold " + std::to_string(pic.pixels.size()) + " bytes");
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    try {
        if (int rc = bus->bio_sample_send(modality.c_str(), image.get()); rc < 0)
            return fail("sample send failed (" + std::to_string(rc) + ")");
    } catch (const std::runtime_error& e) {
        return fail(e.what());
    }
    // The segment must outlive this short process for the receivers to read
    // it; a later sender of the modality reuses it.
    bus->segments[modality]->owner = false;
    printf("sent %dx%d %s %d bytes to %s%s\n", image->width, image->height,
           picture::format_name(image->format).c_str(), image->count(), bus->bio_sample,
           modality.c_str());
    return 0;
}

// Prints the image's description and writes the PNG when asked.
int show(BImage::Image* received, const std::string& key)
{
    std::unique_ptr<BImage::Image> image(received);
    if (!image)
        return fail("no sample on " + key);
    printf("%d %d %s %d\n", image->width, image->height,
           picture::format_name(image->format).c_str(), image->count());
    if (file.empty())
        return 0;
    picture::Picture pic;
    std::string error;
    if (!picture::from_image(*image, pic))
        return fail("cannot convert the sample to a picture");
    if (!picture::write_png(file, pic, error))
        return fail(file + ": " + error);
    return 0;
}

int take(const Options& o, bool remove)
{
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    const std::string key = bus->bio_sample + modality;
    try {
        char from[256] = {};
        return show(remove ? bus->bio_sample_recv({modality.c_str()}, seconds, from, sizeof from)
                           : bus->bio_sample_read(modality.c_str()),
                    key);
    } catch (const std::runtime_error& e) {
        return fail(e.what());
    }
}

} // namespace

void add_sample_commands(CLI::App& app, Action& action)
{
    auto* sample = app.add_subcommand(
        "sample", "Biometric samples: pixels in shared memory, the 32-byte header on the list "
                  "BIOMETRIC_SAMPLE_<MODALITY>");
    sample->require_subcommand(1);
    const std::string png_help =
        "Write the image to FILE as PNG: GRAY8 as grey, RGB24 as colour, any other format as "
        "its luma plane";

    auto* send_cmd = sample->add_subcommand(
        "send", "Send FILE (PNG, binary PGM or PPM) as a sample: grey as GRAY8, colour as RGB24");
    send_cmd->add_option("MODALITY", modality)->required();
    send_cmd->add_option("FILE", file)->required()->check(CLI::ExistingFile);
    send_cmd->callback([&] { action = send; });

    auto* recv = sample->add_subcommand(
        "recv", "Take the oldest sample off the list; print width, height, format and bytes");
    recv->add_option("MODALITY", modality)->required();
    recv->add_option("-o,--output", file, png_help)->type_name("FILE.png");
    recv->add_option("-t,--timeout", seconds, "Wait up to SECONDS (default 0: no limit)")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
    recv->callback([&] { action = [](const Options& o) { return take(o, true); }; });

    auto* peek = sample->add_subcommand(
        "peek", "Like recv, but leave the sample on the list and never wait");
    peek->add_option("MODALITY", modality)->required();
    peek->add_option("-o,--output", file, png_help)->type_name("FILE.png");
    peek->callback([&] { action = [](const Options& o) { return take(o, false); }; });
}

} // namespace bmsg_tool
