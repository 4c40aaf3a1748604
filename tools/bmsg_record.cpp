// bmsg record: pushes, publishes and settings, read from the server's MONITOR
// stream, into a SQLite file; with --samples each sample's pixels too, read
// from its segment right after the descriptor was pushed. MONITOR only
// watches: nothing is taken off a list and nothing is sent on the bus.
#include "bmsg_record.h"
#include "bimage.h"
#include "bshmem.h"
#include "breport.h"
#include "recording.h"

#include <fnmatch.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace bmsg_tool {

namespace {

using Clock = std::chrono::steady_clock;

// Larger descriptors are refused rather than mapped: 1 GiB of pixels.
constexpr unsigned long pixels_max = 1ul << 30;

// What may wait for the file's writer (docs/recording.md): events that
// arrive beyond it are dropped and counted as lost in the file's meta.
constexpr size_t queue_max = 256ul << 20;

// An event's share of the queue: its bytes and some for its record.
size_t queued_size(const recording::Event& e)
{
    return e.payload.size() + e.name.size() + e.sample.pixels.size() + 128;
}

int hex(char c)
{
    return isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(c) - 'a' + 10);
}

// One argument as MONITOR quotes it (Redis's sdscatrepr): printable bytes as
// they are, \\ \" \n \r \t \a \b, and \xHH for every other byte.
bool unquote(const char*& p, const char* end, std::string& out)
{
    if (p == end || *p != '"')
        return false;
    out.clear();
    for (++p; p < end; ++p) {
        if (*p == '"') {
            ++p;
            return true;
        }
        if (*p != '\\') {
            out += *p;
            continue;
        }
        if (++p == end)
            return false;
        switch (*p) {
        case '\\': case '"': out += *p; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'a': out += '\a'; break;
        case 'b': out += '\b'; break;
        case 'x':
            if (end - p < 3 || !isxdigit(static_cast<unsigned char>(p[1])) ||
                !isxdigit(static_cast<unsigned char>(p[2])))
                return false;
            out += static_cast<char>(hex(p[1]) * 16 + hex(p[2]));
            p += 2;
            break;
        default:
            return false;
        }
    }
    return false;
}

// `<seconds>.<microseconds> [<db> <client>] "arg" "arg" ...`.
bool parse_line(std::string_view line, int64_t& time_us, std::vector<std::string>& args)
{
    size_t dot = line.find('.');
    if (dot == std::string_view::npos || dot == 0 || line.size() < dot + 8 || line[dot + 7] != ' ')
        return false;
    int64_t seconds = 0, micro = 0;
    for (size_t i = 0; i < dot + 7; ++i) {
        if (i == dot)
            continue;
        if (!isdigit(static_cast<unsigned char>(line[i])))
            return false;
        (i < dot ? seconds : micro) = (i < dot ? seconds : micro) * 10 + (line[i] - '0');
    }
    time_us = seconds * 1000000 + micro;
    // The client's address may hold blanks (a socket path): the arguments
    // begin after the bracket's end.
    const size_t start = line.find("] \"", dot);
    if (start == std::string_view::npos)
        return false;
    const char* p = line.data() + start + 2;
    const char* end = line.data() + line.size();
    args.clear();
    while (p < end) {
        args.emplace_back();
        if (!unquote(p, end, args.back()) || (p < end && *p++ != ' '))
            return false;
    }
    return true;
}

struct Recorder {
    std::vector<std::string> patterns;
    std::vector<std::string> named;  // the named lists
    std::string sample_prefix;
    bool samples = false;
    Clock::time_point deadline = Clock::time_point::max();

    std::mutex lock;
    std::condition_variable ready;
    std::vector<recording::Event> pending;
    size_t queued = 0;      // queued_size() of the events taken and not yet written
    long long dropped = 0;  // events lost to the queue's limit
    bool done = false;
    std::string lost;  // why the stream ended, when not asked to

    bool wanted_list(const std::string& key) const
    {
        return patterns.empty() || key.compare(0, sample_prefix.size(), sample_prefix) == 0 ||
               std::find(named.begin(), named.end(), key) != named.end() || matches(patterns, key);
    }

    // The pixels of the sample whose descriptor is e.payload, when the
    // segment still holds that image.
    void read_sample(recording::Event& e) const
    {
        e.has_sample = true;
        e.sample.modality = e.name.substr(sample_prefix.size());
        unsigned int width, height;
        unsigned long size = 0;
        BImage::ImageFormat format;
        const auto* descriptor = reinterpret_cast<const unsigned char*>(e.payload.data());
        if (e.payload.size() != BImage::Image::header_size ||
            !BImage::Image::parse_image_header(descriptor, width, height, size, format) ||
            size > pixels_max) {
            e.sample.missed = "not a sample descriptor";
            return;
        }
        try {
            bMSG::SharedMemory segment("/" + e.name, BImage::Image::header_size + size, false);
            if (!segment.addr) {
                e.sample.missed = "no segment with room for the image";
                return;
            }
            // Allocated first: the sender waits for the segment's lock
            // while it is held, so it is held for one copy only.
            e.sample.pixels.reserve(size);
            segment.read(BImage::Image::header_size + size, 0, [&](const unsigned char* p) {
                if (memcmp(p, descriptor, BImage::Image::header_size) != 0)
                    e.sample.missed = "the segment already held another image";
                else
                    e.sample.pixels.assign(reinterpret_cast<const char*>(p) + BImage::Image::header_size, size);
            });
        } catch (const std::runtime_error& error) {
            e.sample.missed = error.what();
        } catch (const std::bad_alloc&) {
            e.sample.pixels = std::string();
            e.sample.missed = "no memory for the pixels";
        }
    }

    void handle(int64_t time_us, std::vector<std::string>& a, std::vector<recording::Event>& out) const
    {
        if (a.size() < 3)
            return;
        std::string command = a[0];
        for (char& c : command)
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        const auto event = [&](const char* kind, std::string& payload) {
            recording::Event e;
            e.time_us = time_us;
            e.kind = kind;
            e.command = command;
            e.name = a[1];
            e.payload = std::move(payload);
            return e;
        };
        const bool push = command == "LPUSH" || command == "RPUSH" || command == "LPUSHX" ||
                          command == "RPUSHX";
        if (push && wanted_list(a[1])) {
            const bool sample = a[1].compare(0, sample_prefix.size(), sample_prefix) == 0;
            for (size_t i = 2; i < a.size(); ++i) {
                recording::Event e = event(sample ? "sample" : "push", a[i]);
                if (sample && samples)
                    read_sample(e);
                out.push_back(std::move(e));
            }
        } else if ((command == "PUBLISH" && a.size() == 3) || command == "SET") {
            if (patterns.empty() || matches(patterns, a[1]))
                out.push_back(event(command == "SET" ? "set" : "publish", a[2]));
        }
    }

    // The reader thread: lines off the MONITOR connection until asked to
    // stop or the time is up, then what has already arrived (for a second
    // at most), or until the connection ends.
    void read(redisContext* c)
    {
        std::vector<std::string> args;
        std::vector<recording::Event> events;
        std::string why;
        auto drain_end = Clock::time_point::max();
        while (why.empty() && Clock::now() < drain_end) {
            if (drain_end == Clock::time_point::max() && (stop_requested || Clock::now() >= deadline))
                drain_end = Clock::now() + std::chrono::seconds(1);
            void* r = nullptr;
            if (redisGetReplyFromReader(c, &r) != REDIS_OK) {
                why = c->errstr;
                break;
            }
            if (!r) {
                pollfd p = {c->fd, POLLIN, 0};
                const int ready = poll(&p, 1, drain_end == Clock::time_point::max() ? 100 : 0);
                if (ready > 0 && redisBufferRead(c) != REDIS_OK)
                    why = c->errstr[0] ? c->errstr : "connection closed";
                else if (ready <= 0 && drain_end != Clock::time_point::max())
                    break;
                continue;
            }
            Reply reply(static_cast<redisReply*>(r));
            int64_t time_us = 0;
            if (reply->type == REDIS_REPLY_STATUS &&
                parse_line(std::string_view(reply->str, reply->len), time_us, args))
                handle(time_us, args, events);
            else if (reply->type == REDIS_REPLY_ERROR)
                why = std::string(reply->str, reply->len);
            if (!events.empty()) {
                std::lock_guard<std::mutex> hold(lock);
                for (auto& e : events) {
                    const size_t size = queued_size(e);
                    if (queued + size > queue_max) {
                        ++dropped;
                        continue;
                    }
                    queued += size;
                    pending.push_back(std::move(e));
                }
                events.clear();
            }
        }
        std::lock_guard<std::mutex> hold(lock);
        lost = why;
        done = true;
        ready.notify_one();
    }
};

long long file_size(const std::string& path)
{
    long long total = 0;
    struct stat st;
    for (const std::string& p : {path, path + "-wal"})
        if (stat(p.c_str(), &st) == 0)
            total += st.st_size;
    return total;
}

int64_t wall_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

std::string output;
double duration = 0;
bool with_samples = false;
std::vector<std::string> record_patterns;

int record(const Options& o)
{
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    // MONITOR first: a refused recorder leaves no empty recording behind.
    redisContext* c = bus->redis_context();
    Reply reply(static_cast<redisReply*>(redisCommand(c, "MONITOR")));
    if (const std::string why = why_not(*bus, reply.get(), "MONITOR"); !why.empty())
        return fail(why);
    std::string error;
    auto file = recording::File::create(output, error);
    struct stat created = {};
    if (!file || stat(output.c_str(), &created) != 0)
        return fail(output + ": " + (file ? strerror(errno) : error));
    long long kept = 0;  // events in the file
    // A recording that fails before its first event holds nothing: the file
    // made for it goes (when it is still the one made here).
    const auto failed_with = [&](const std::string& why) {
        struct stat now;
        file.reset();
        if (kept == 0 && lstat(output.c_str(), &now) == 0 && now.st_dev == created.st_dev &&
            now.st_ino == created.st_ino) {
            for (const char* end : {"-wal", "-shm", ""})
                unlink((output + end).c_str());
        }
        return fail(why);
    };

    Recorder r;
    r.patterns = record_patterns;
    r.named = {bus->device_cmd, bus->bio_cmd, bus->bio_info, bus->bio_resp};
    r.sample_prefix = bus->bio_sample;
    r.samples = with_samples;
    const auto start = Clock::now();
    if (duration > 0)
        r.deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(duration));
    std::string patterns_text;
    for (const std::string& p : record_patterns)
        patterns_text += (patterns_text.empty() ? "" : " ") + p;
    const bool described = file->set_meta("started_us", std::to_string(wall_us()), error) &&
                           file->set_meta("samples", with_samples ? "1" : "0", error) &&
                           file->set_meta("patterns", patterns_text, error);
    if (!described)
        return failed_with(output + ": " + error);

    catch_stop();
    std::thread reader([&] { r.read(c); });
    const bool terminal = isatty(STDOUT_FILENO);
    std::map<std::string, long long> counts;
    long long missed = 0, total = 0;
    std::string failed;
    std::string line;
    long long lost = 0;
    for (bool finished = false; !finished;) {
        std::vector<recording::Event> batch;
        long long dropped;
        {
            std::unique_lock<std::mutex> hold(r.lock);
            r.ready.wait_for(hold, std::chrono::milliseconds(100), [&] { return r.done; });
            batch.swap(r.pending);
            finished = r.done;
            dropped = r.dropped;
        }
        if (failed.empty() && !batch.empty()) {
            if (file->write(batch, failed))
                kept += static_cast<long long>(batch.size());
            else
                stop_requested = true;  // the reader ends; nothing more can be kept
        }
        if (failed.empty() && dropped != lost && !file->set_meta("lost", std::to_string(dropped), failed))
            stop_requested = true;
        lost = dropped;
        size_t written = 0;
        for (const auto& e : batch)
            written += queued_size(e);
        {
            std::lock_guard<std::mutex> hold(r.lock);
            r.queued -= written;
        }
        for (const auto& e : batch) {
            ++counts[e.kind];
            missed += e.has_sample && !e.sample.missed.empty();
        }
        total += static_cast<long long>(batch.size());
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        char tail[96];
        snprintf(tail, sizeof tail, "  %.1f/s  %.1f MB", seconds > 0 ? total / seconds : 0.0,
                 file_size(output) / 1e6);
        line = seconds_text(static_cast<int64_t>(seconds * 1e6));
        for (const char* kind : {"push", "sample", "publish", "set"}) {
            line += std::string("  ") + kind + " " + std::to_string(counts[kind]);
            if (with_samples && kind == std::string("sample"))
                line += " (missed " + std::to_string(missed) + ")";
        }
        line += tail;
        if (lost > 0)
            line += "  lost " + std::to_string(lost);
        if (terminal) {
            printf("\r%s\x1b[K", line.c_str());
            fflush(stdout);
        }
    }
    reader.join();
    printf("%s%s\n", terminal ? "\r" : "", line.c_str());
    if (!failed.empty())
        return failed_with(output + ": " + failed);
    if (!file->set_meta("ended_us", std::to_string(wall_us()), error))
        return failed_with(output + ": " + error);
    if (lost > 0)
        bMSG::write_error_line("bmsg: " + std::to_string(lost) + " events lost: the file's writer fell behind");
    // The server closes a watcher that falls behind as it closes any client
    // of its class: the limit is the device's to set (docs/recording.md).
    return r.lost.empty() ? 0
                          : failed_with("lost the server: " + r.lost +
                                        " (it ended, or the recorder fell behind by more than the "
                                        "server's client-output-buffer-limit for normal clients)");
}

} // namespace

bool matches(const std::vector<std::string>& patterns, const std::string& name)
{
    for (const std::string& p : patterns)
        if (fnmatch(p.c_str(), name.c_str(), 0) == 0)
            return true;
    return false;
}

std::string seconds_text(int64_t us)
{
    char text[32];
    snprintf(text, sizeof text, "%.3f s", us / 1e6);
    return text;
}

void add_record_commands(CLI::App& app, Action& action)
{
    auto* rec = app.add_subcommand(
        "record", std::string("Record pushes (the named lists, the sample lists and lists matching a "
                              "PATTERN), publishes and settings (all, or those matching a PATTERN) "
                              "into a new SQLite FILE (mode 0600; ") +
                      doc_dir + "/recording.md) until Ctrl-C or -d");
    rec->add_option("-o,--output", output, "The recording to create")->required()->type_name("FILE");
    rec->add_option("-d,--duration", duration, "Stop after SECONDS (default 0: at Ctrl-C)")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
    rec->add_flag("--samples", with_samples,
                  "Keep each sample's pixels too, read from its segment right after the push");
    rec->add_option("PATTERN", record_patterns, "Glob over list keys, channels and setting keys");
    rec->callback([&] { action = record; });
    add_play_command(app, action);
    add_info_commands(app, action);
}

} // namespace bmsg_tool
