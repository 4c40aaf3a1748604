// bmsg sample: send a picture file as a biometric sample, take or peek at
// the oldest one and write it as PNG.
#include "bmsg_tool.h"
#include "bimage.h"
#include "picture.h"

#include <hiredis/hiredis.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace bmsg_tool {

namespace {

std::string modality, file;
int seconds = -1;
bool keep = false;
constexpr int send_wait_default = 10;

// Whether the descriptor is still on the list (LPOS, Redis 6.0.6 and
// later): 1 or 0; -1 with `why` set when the server refused or is gone.
int queued(bMSG::Messager& bus, const std::string& key, const unsigned char* descriptor, std::string& why)
{
    Reply reply(static_cast<redisReply*>(redisCommand(bus.redis_context(), "LPOS %s %b", key.c_str(),
                                                        descriptor, size_t{BImage::Image::header_size})));
    why = why_not(bus, reply.get(), "LPOS");
    if (why.empty() && reply->type != REDIS_REPLY_INTEGER && reply->type != REDIS_REPLY_NIL)
        why = "LPOS: unexpected reply";
    return why.empty() ? reply->type == REDIS_REPLY_INTEGER : -1;
}

// Waits until a receiver has taken the sample; on time-out or Ctrl-C takes
// the descriptor back, so no receiver finds it after the segment is gone.
int wait_taken(bMSG::Messager& bus, const std::string& key, const unsigned char* descriptor)
{
    const int limit = seconds < 0 ? send_wait_default : seconds;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
    std::string why;
    int rc;
    while ((rc = queued(bus, key, descriptor, why)) == 1 && !stop_requested &&
           (limit == 0 || std::chrono::steady_clock::now() < end))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (rc < 0)
        return fail(why);
    if (rc == 1) {
        Reply reply(static_cast<redisReply*>(redisCommand(
            bus.redis_context(), "LREM %s 1 %b", key.c_str(), descriptor, size_t{BImage::Image::header_size})));
        if (const std::string refused = why_not(bus, reply.get(), "LREM"); !refused.empty())
            return fail(refused);
        if (reply->type == REDIS_REPLY_INTEGER && reply->integer == 1)
            return fail(stop_requested ? "interrupted; the sample was taken back"
                                       : "no receiver took the sample within " + std::to_string(limit) + " s");
    }
    // A receiver that has just popped the descriptor still has to open the
    // segment by name.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return 0;
}

// Every return ends the Messager, which removes the segment it created
// unless told to keep it; a stop signal only ends the wait, so that
// happens for SIGINT and SIGTERM too.
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
    catch_stop();
    try {
        if (int rc = bus->bio_sample_send(modality.c_str(), image.get()); rc < 0)
            return fail(why_failed(*bus, rc, "sample send"));
    } catch (const std::runtime_error& e) {
        return fail(e.what());
    }
    const std::string key = bus->bio_sample + modality;
    printf("sent %dx%d %s %d bytes to %s\n", image->width, image->height,
           picture::format_name(image->format).c_str(), image->count(), key.c_str());
    fflush(stdout);
    // --keep: the segment outlives this short process, for receivers that
    // come later; a later sender of the modality reuses it.
    if (keep) {
        bus->keep_segment(modality.c_str());
        return 0;
    }
    return wait_taken(*bus, key, image->format_header());
}

// Prints the image's description and writes the PNG when asked.
int show(const BImage::Image& image)
{
    printf("%d %d %s %d\n", image.width, image.height,
           picture::format_name(image.format).c_str(), image.count());
    if (file.empty())
        return 0;
    picture::Picture pic;
    std::string error;
    if (!picture::from_image(image, pic))
        return fail("cannot convert the sample to a picture");
    if (!picture::write_png(file, pic, error))
        return fail(file + ": " + error);
    return 0;
}

// A null from the library's read does not say why: the tool looks at the
// oldest descriptor itself first, so a refusal and an empty list each get
// their own message.
int peek_oldest(const Options& o)
{
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    const std::string key = bus->bio_sample + modality;
    Reply oldest(static_cast<redisReply*>(redisCommand(bus->redis_context(), "LRANGE %s -1 -1", key.c_str())));
    if (const std::string why = why_not(*bus, oldest.get(), "sample peek"); !why.empty())
        return fail(why);
    if (oldest->type != REDIS_REPLY_ARRAY || oldest->elements == 0)
        return fail("no sample on " + key);
    try {
        std::unique_ptr<BImage::Image> image(bus->bio_sample_read(modality.c_str()));
        // The library has said why (a missing segment, another image in it).
        return image ? show(*image) : fail("cannot read the sample on " + key);
    } catch (const std::runtime_error& e) {
        return fail(e.what());
    }
}

int take_oldest(const Options& o)
{
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    const std::string key = bus->bio_sample + modality;
    // BRPOP's 0 waits for ever: without -t take one only when one is there
    // (1 s covers another receiver taking it first).
    if (seconds < 0) {
        const int n = bus->list_size(key.c_str());
        if (n <= 0)
            return fail(n < 0 ? why_failed(*bus, n, "sample recv") : "no sample on " + key);
    }
    BImage::Image image(0, 0, BImage::GRAY8, nullptr);
    const int rc = bus->bio_sample_recv_into({modality.c_str()}, seconds < 0 ? 1 : seconds, image);
    if (rc == 1)
        return show(image);
    if (rc == 0)
        return fail("no sample on " + key);
    if (rc == -9 || rc == -11)
        return fail("the sample taken off " + key +
                    (rc == -9 ? " has no segment" : " was overwritten in its segment"));
    return fail(why_failed(*bus, rc, "sample recv"));
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
    add_timeout(send_cmd, seconds,
                "without -t: 10 s. Until a receiver takes the sample; then (a second later, "
                "for the receiver to open it) the segment this process created is removed. "
                "Not taken in time, or Ctrl-C or SIGTERM: the sample is taken back, exit 1");
    send_cmd->add_flag("-k,--keep", keep, "Do not wait; leave the segment for later receivers");
    send_cmd->callback([&] { action = send; });

    auto* recv = sample->add_subcommand(
        "recv", "Take the oldest sample off the list; print width, height, format and bytes");
    recv->add_option("MODALITY", modality)->required();
    recv->add_option("-o,--output", file, png_help)->type_name("FILE.png");
    add_timeout(recv, seconds, "without -t: do not wait");
    recv->callback([&] { action = take_oldest; });

    auto* peek = sample->add_subcommand(
        "peek", "Like recv, but leave the sample on the list and never wait");
    peek->add_option("MODALITY", modality)->required();
    peek->add_option("-o,--output", file, png_help)->type_name("FILE.png");
    peek->callback([&] { action = peek_oldest; });
}

} // namespace bmsg_tool
