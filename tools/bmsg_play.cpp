// bmsg play: a recording back onto the bus in its recorded order and with its
// recorded gaps (divided by --rate): pushes, publishes and settings as they
// were issued, samples through bio_sample_send, so that every receiver takes
// them as it takes the device's.
#include "bimage.h"
#include "bmsg_record.h"
#include "recording.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace bmsg_tool {

namespace {

using Clock = std::chrono::steady_clock;

std::string file_name;                // the one being played
std::vector<std::string> file_names;  // in order
std::string key_file;                 // of sealed recordings
double rate = 1;
bool loop = false;
std::vector<std::string> only;

// Sleeps until `when`, looking every 100 ms whether to stop; false then.
bool sleep_until(Clock::time_point when)
{
    for (auto now = Clock::now(); now < when && !stop_requested; now = Clock::now())
        std::this_thread::sleep_for(std::min<Clock::duration>(when - now, std::chrono::milliseconds(100)));
    return !stop_requested;
}

std::string send_sample(bMSG::Messager& bus, const recording::Event& e)
{
    recording::Shape shape;
    if (!recording::shape_of(e.payload, shape) || shape.size != e.sample.pixels.size())
        return "sample on " + e.name + " does not match its descriptor";
    BImage::Image image(static_cast<int>(shape.width), static_cast<int>(shape.height), shape.format, nullptr);
    if (!image.data && shape.size > 0)
        return "cannot hold a sample of " + std::to_string(shape.size) + " bytes";
    memcpy(image.data, e.sample.pixels.data(), shape.size);
    try {
        // Every sample goes with its own size: the library grows the segment
        // for one larger than those before.
        if (int rc = bus.bio_sample_send(e.sample.modality.c_str(), &image); rc < 0)
            return why_failed(bus, rc, "sample send on " + e.name);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

// One event back onto the bus: empty, or why not. The file was checked when
// it was opened; it is checked again here as it may have changed since.
std::string replay(bMSG::Messager& bus, const recording::Event& e, long long number)
{
    if (const std::string why = recording::unrecordable(e); !why.empty())
        return file_name + ": not a bmsg recording: event " + std::to_string(number) + ": " + why;
    if (e.kind == "sample")
        return send_sample(bus, e);
    const char* argv[] = {e.command.c_str(), e.name.data(), e.payload.data()};
    const size_t lengths[] = {e.command.size(), e.name.size(), e.payload.size()};
    Reply reply(static_cast<redisReply*>(redisCommandArgv(bus.redis_context(), 3, argv, lengths)));
    return why_not(bus, reply.get(), e.command + " " + e.name);
}

int play(const Options& o)
{
    std::string error;
    // Every file is checked before anything is sent.
    std::vector<std::unique_ptr<recording::File>> files;
    long long total = 0;
    const auto count = [&](const recording::Event& e) {
        total += only.empty() || matches(only, e.name);
        return true;
    };
    for (const std::string& name : file_names) {
        files.push_back(open_recording(name, key_file, true));
        if (!files.back())
            return 1;
        if (!files.back()->each(count, false, error))
            return fail(name + ": " + error);
    }
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    catch_stop();
    const bool terminal = isatty(STDOUT_FILENO);
    long long played = 0, skipped = 0;
    std::string failed;
    auto shown = Clock::now();
    do {
        // One time base for the files: they play as one recording.
        int64_t first = -1;
        const auto start = Clock::now();
        for (size_t f = 0; f < files.size() && failed.empty() && !stop_requested; ++f) {
            file_name = file_names[f];
            long long number = 0;
            const bool read = files[f]->each(
                [&](const recording::Event& e) {
                    ++number;
                    if (!only.empty() && !matches(only, e.name))
                        return true;
                    if (first < 0)
                        first = e.time_us;
                    const auto gap = std::chrono::microseconds(static_cast<int64_t>(rate > 0 ? (e.time_us - first) / rate : 0));
                    if (!sleep_until(start + gap))
                        return false;
                    // Without pixels a sample cannot be sent, and its descriptor
                    // alone would hand the receivers another image's pixels.
                    if (e.kind == "sample" && (!e.has_sample || !e.sample.missed.empty())) {
                        ++skipped;
                        return true;
                    }
                    failed = replay(*bus, e, number);
                    if (!failed.empty())
                        return false;
                    ++played;
                    if (terminal && Clock::now() - shown > std::chrono::milliseconds(100)) {
                        shown = Clock::now();
                        printf("\rplayed %lld events of %lld per pass\x1b[K", played, total);
                        fflush(stdout);
                    }
                    return true;
                },
                true, error);
            if (!read)
                failed = error;
        }
    } while (loop && total > 0 && failed.empty() && !stop_requested);
    // A segment with samples still queued stays for their receivers; the
    // others go with the bus, after a moment for a receiver that has just
    // popped a descriptor and still has to open the segment.
    bool taken = false;
    for (const auto& segment : bus->segments) {
        const bool queued = bus->list_size((bus->bio_sample + segment.first).c_str()) != 0;
        if (queued)
            bus->keep_segment(segment.first.c_str());
        taken = taken || !queued;
    }
    if (taken)
        std::this_thread::sleep_for(std::chrono::seconds(1));
    printf("%splayed %lld events\n", terminal ? "\r\x1b[K" : "", played);
    if (!failed.empty())
        return fail(failed);
    if (stop_requested && !loop)
        return fail("interrupted");
    if (skipped > 0)
        return fail(std::to_string(skipped) + " sample(s) recorded without pixels not replayed");
    return 0;
}

} // namespace

void add_play_command(CLI::App& app, Action& action)
{
    auto* sub = app.add_subcommand(
        "play", "Replay a recording in its order and with its gaps: pushes, publishes and "
                "settings as recorded, samples through the library's sample send. Exit 0 when "
                "everything was replayed");
    sub->add_option("FILE", file_names, "Recordings, played in order as one (their time goes on across them)")
        ->required();
    sub->add_option("--rate", rate, "Divide the recorded gaps by R (default 1; 0: no gaps)")
        ->type_name("R")
        ->check(CLI::NonNegativeNumber);
    sub->add_flag("--loop", loop, "Start again at the end, until Ctrl-C");
    sub->add_option("--only", only, "Replay only lists, channels and settings matching the glob")
        ->type_name("PATTERN");
    add_key_option(sub, key_file);
    sub->callback([&] { action = play; });
}

} // namespace bmsg_tool
