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
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>
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

// Black box (--ring): the ring and the queue share one bound, by default
// twice the queue's: a minute of the window and what waits for the file.
constexpr double ring_size_default = 512;  // MiB
constexpr int64_t forever_us = std::numeric_limits<int64_t>::max() / 4;
// A window ends at the first event past its end or, on a quiet bus, on the
// recorder's clock this long after its end, for the events still on their
// way (a recorder that fell behind by less keeps its window whole).
constexpr int64_t window_grace_us = 1000000;

std::atomic<bool> trigger_requested{false};

// What opens a window: a publish or a setting whose name and value match
// the globs of CHANNEL=PATTERN or KEY=PATTERN.
struct Trigger {
    std::string kind;  // "publish" or "set"
    std::string name, value;
    std::string text;  // for the file's meta
};

// Where the queue to the file changes files (--ring): before the queue's
// event `at`, a window opens, takes one more trigger, or closes.
struct Cut {
    enum Kind { open, note, close } kind;
    size_t at;
    std::string what;     // the trigger
    std::string name;     // for the file's name
    int64_t time_us;      // the trigger's, or the window's end
    int64_t from_us = 0;  // the window's start
};

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

int64_t wall_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
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

    // Black box: the reader keeps the last ring_us in `ring` until a
    // trigger, then queues the window for the file until window_end.
    bool black_box = false;
    size_t bound = queue_max;  // ring_bytes and queued together
    int64_t ring_us = forever_us, after_us = 0;
    std::vector<Trigger> triggers;
    std::vector<Cut> cuts;  // under `lock`, as pending
    std::deque<recording::Event> ring;  // the reader's own
    size_t ring_bytes = 0;
    int64_t window_end = 0;  // 0: watching

    const Trigger* fired(const recording::Event& e) const
    {
        for (const Trigger& t : triggers)
            if (t.kind == e.kind && fnmatch(t.name.c_str(), e.name.c_str(), 0) == 0 &&
                fnmatch(t.value.c_str(), e.payload.c_str(), 0) == 0)
                return &t;
        return nullptr;
    }

    // The rest below: under `lock`, from the reader.
    void enqueue(recording::Event& e)
    {
        const size_t size = queued_size(e);
        if (queued + ring_bytes + size > bound) {
            ++dropped;
            return;
        }
        queued += size;
        pending.push_back(std::move(e));
    }

    // Into the ring, the oldest going when they are too old or there is no
    // room; one that finds no room while the file catches up is not kept.
    void keep(recording::Event& e)
    {
        const size_t size = queued_size(e);
        while (!ring.empty() && (ring.front().time_us < e.time_us - ring_us || queued + ring_bytes + size > bound)) {
            ring_bytes -= queued_size(ring.front());
            ring.pop_front();
        }
        if (queued + ring_bytes + size > bound)
            return;
        ring_bytes += size;
        ring.push_back(std::move(e));
    }

    // A trigger at `time_us`: the ring's last ring_us go to the file and
    // the window lasts until after_us past it (past the last trigger when
    // one fires during the window: the window is extended, one file).
    void fire(int64_t time_us, const std::string& what, const std::string& name)
    {
        if (window_end != 0 && time_us > window_end)
            close_window();  // past its end, not closed yet (SIGUSR1 in the grace)
        if (window_end != 0) {
            window_end = std::max(window_end, time_us + after_us);
            cuts.push_back({Cut::note, pending.size(), what, name, time_us});
            return;
        }
        Cut cut{Cut::open, pending.size(), what, name, time_us, time_us - ring_us};
        for (auto& e : ring) {
            if (e.time_us < time_us - ring_us)
                continue;
            if (ring_us == forever_us && cut.from_us > e.time_us)
                cut.from_us = e.time_us;
            queued += queued_size(e);
            pending.push_back(std::move(e));
        }
        if (ring_us == forever_us && cut.from_us > time_us)
            cut.from_us = time_us;
        cuts.push_back(std::move(cut));
        ring.clear();
        ring_bytes = 0;
        window_end = time_us + after_us;
    }

    void close_window()
    {
        cuts.push_back({Cut::close, pending.size(), "", "", window_end});
        window_end = 0;
    }

    void deliver(std::vector<recording::Event>& events)
    {
        for (auto& e : events) {
            if (!black_box) {
                enqueue(e);
                continue;
            }
            if (window_end != 0 && e.time_us > window_end)
                close_window();
            if (const Trigger* t = fired(e))
                fire(e.time_us, t->text, e.name);
            if (window_end != 0)
                enqueue(e);
            else
                keep(e);
        }
        events.clear();
    }

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
            // A trigger is in its window whatever the PATTERNs.
            recording::Event e = event(command == "SET" ? "set" : "publish", a[2]);
            if (patterns.empty() || matches(patterns, a[1]) || fired(e))
                out.push_back(std::move(e));
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
            if (black_box && (trigger_requested || window_end != 0)) {
                std::lock_guard<std::mutex> hold(lock);
                if (trigger_requested.exchange(false))
                    fire(wall_us(), "SIGUSR1", "SIGUSR1");
                if (window_end != 0 && wall_us() > window_end + window_grace_us)
                    close_window();
            }
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
                deliver(events);
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

// Letters, digits, '-', '_' and '.' of a name, for a file's name.
std::string name_safe(const std::string& name)
{
    std::string out = name.substr(0, 64);
    for (char& c : out)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            c = '_';
    return out;
}

// "20261125T221503Z".
std::string utc_text(int64_t us)
{
    return recording::time_text(us, "%Y%m%dT%H%M%SZ", true);
}

// The files of one recorder: -o itself; or its numbered parts
// (STEM-0001.EXT, ... with --max-size or --max-duration); or, black box,
// one per window (STEM-<time>-<trigger>.EXT, numbered too when split).
class Output {
public:
    std::string base;
    bool split = false;
    size_t max_bytes = 0;
    int64_t max_us = 0;
    size_t keep = 0;  // files kept (0: all)
    std::vector<std::pair<std::string, std::string>> meta;  // every file's
    long long dropped = 0;  // the recorder's count of lost events
    const sealing::PublicKey* seal_to = nullptr;  // every file sealed to it, when given

    std::unique_ptr<recording::File> file;
    std::string path;
    long long kept = 0;  // events in the current file
    int files = 0;

    // A new file: the window's (a trigger's Cut) or the next part.
    bool open(const Cut* window, std::string& error)
    {
        if (window) {
            window_ = utc_text(window->time_us) + "-" + name_safe(window->name);
            window_meta_ = {{"trigger", window->what}, {"trigger_us", std::to_string(window->time_us)},
                            {"triggers", "1"}};
            part_ = 0;
            // Two windows in one second of the same trigger: a second name.
            const std::string first = window_;
            struct stat st;
            for (int n = 2; (path = name(1), lstat(path.c_str(), &st) == 0); ++n)
                window_ = first + "-" + std::to_string(n);
        }
        ++part_;
        path = name(part_);
        file = recording::File::create(path, error, seal_to);
        if (!file || stat(path.c_str(), &created_) != 0) {
            error = path + ": " + (file ? strerror(errno) : error);
            file.reset();
            return false;
        }
        ++files;
        kept = 0;
        bytes_ = 0;
        lost_ = 0;
        made_.push_back(path);
        auto values = meta;
        values.emplace_back("started_us", std::to_string(window ? window->from_us : wall_us()));
        values.insert(values.end(), window_meta_.begin(), window_meta_.end());
        if (split)
            values.emplace_back("part", std::to_string(part_));
        for (const auto& v : values)
            if (!file->set_meta(v.first, v.second, error))
                return failed(error);
        // The oldest beyond --keep go, once the new one is there.
        while (keep > 0 && made_.size() > keep) {
            remove(made_.front());
            made_.pop_front();
        }
        return true;
    }

    // The events [from, to) of `batch` (moved from), into new parts as the
    // limits say; their sizes were counted before.
    bool write(std::vector<recording::Event>& batch, size_t from, size_t to, std::string& error)
    {
        std::vector<recording::Event> part;
        for (size_t i = from; i <= to; ++i) {
            const bool roll = i < to && split && kept + static_cast<long long>(part.size()) > 0 &&
                              ((max_bytes > 0 && bytes_ + queued_size(batch[i]) > max_bytes) ||
                               (max_us > 0 && batch[i].time_us - first_us_ >= max_us));
            if ((roll || i == to) && !part.empty()) {
                if (!file->write(part, error))
                    return failed(error);
                kept += static_cast<long long>(part.size());
                part.clear();
            }
            if (roll && !(close(wall_us(), error) && open(nullptr, error)))
                return false;
            if (i == to)
                break;
            if (kept + static_cast<long long>(part.size()) == 0)
                first_us_ = batch[i].time_us;
            bytes_ += queued_size(batch[i]);
            part.push_back(std::move(batch[i]));
        }
        return true;
    }

    // A window's cut: its file opens, notes one more trigger, or closes.
    bool cut(const Cut& c, std::string& error)
    {
        if (c.kind == Cut::note) {
            window_meta_[2].second = std::to_string(std::stoll(window_meta_[2].second) + 1);
            return !file || file->set_meta("triggers", window_meta_[2].second, error) || failed(error);
        }
        if (file && !close(c.kind == Cut::close ? c.time_us : wall_us(), error))
            return false;
        return c.kind == Cut::close || open(&c, error);
    }

    // The current file's lost events, when they changed.
    bool count_lost(long long now, std::string& error)
    {
        if (!file || now == dropped)
            return true;
        lost_ += now - dropped;
        dropped = now;
        return file->set_meta("lost", std::to_string(lost_), error) || failed(error);
    }

    bool close(int64_t ended_us, std::string& error)
    {
        if (!file)
            return true;
        if (!file->set_meta("ended_us", std::to_string(ended_us), error))
            return failed(error);
        file.reset();
        return true;
    }

    // A failure, `error` now naming the file: one that holds no event yet
    // goes (when it is still the one made here).
    bool failed(std::string& error)
    {
        struct stat now;
        file.reset();
        if (kept == 0 && lstat(path.c_str(), &now) == 0 && now.st_dev == created_.st_dev &&
            now.st_ino == created_.st_ino)
            remove(path);
        error = path + ": " + error;
        return false;
    }

private:
    std::string name(int part) const
    {
        const size_t slash = base.rfind('/');
        const size_t begin = slash == std::string::npos ? 0 : slash + 1;
        size_t dot = base.rfind('.');
        if (dot == std::string::npos || dot <= begin)
            dot = base.size();
        std::string stem = base.substr(0, dot);
        if (!window_.empty())
            stem += "-" + window_;
        if (split) {
            char number[16];
            snprintf(number, sizeof number, "-%04d", part);
            stem += number;
        }
        return stem + base.substr(dot);
    }

    static void remove(const std::string& file)
    {
        for (const char* end : {"-wal", "-shm", ""})
            unlink((file + end).c_str());
    }

    std::string window_;
    std::vector<std::pair<std::string, std::string>> window_meta_;
    int part_ = 0;
    size_t bytes_ = 0;
    int64_t first_us_ = 0;
    long long lost_ = 0;
    struct stat created_ = {};
    std::deque<std::string> made_;
};

std::string output;
double duration = 0;
bool with_samples = false;
std::vector<std::string> record_patterns;
double ring_seconds = 0, ring_mib = 0, after_seconds = 10, max_mib = 0, max_seconds = 0;
size_t keep_files = 0;
std::vector<std::string> trigger_args, trigger_key_args;
std::string seal_to_file;

int record(const Options& o)
{
    std::string key_error;
    std::unique_ptr<sealing::PublicKey> seal_to;
    if (!seal_to_file.empty() && !(seal_to = sealing::read_public_key(seal_to_file, key_error)))
        return fail(key_error);
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    // MONITOR first: a refused recorder leaves no empty recording behind.
    redisContext* c = bus->redis_context();
    Reply reply(static_cast<redisReply*>(redisCommand(c, "MONITOR")));
    if (const std::string why = why_not(*bus, reply.get(), "MONITOR"); !why.empty())
        return fail(why);
    std::string error;
    const bool black_box = ring_seconds > 0 || ring_mib > 0;
    Output out;
    out.base = output;
    out.split = max_mib > 0 || max_seconds > 0;
    out.max_bytes = static_cast<size_t>(max_mib * (1 << 20));
    out.max_us = static_cast<int64_t>(max_seconds * 1e6);
    out.keep = keep_files;
    out.seal_to = seal_to.get();
    std::string patterns_text;
    for (const std::string& p : record_patterns)
        patterns_text += (patterns_text.empty() ? "" : " ") + p;
    out.meta = {{"samples", with_samples ? "1" : "0"}, {"patterns", patterns_text}};
    if (black_box) {
        // Nothing is written until a trigger: a directory that cannot take
        // the window is found now rather than then.
        const size_t slash = output.rfind('/');
        const std::string dir = slash == std::string::npos ? "." : output.substr(0, slash + 1);
        if (access(dir.c_str(), W_OK | X_OK) != 0)
            return fail(dir + ": " + strerror(errno));
    } else if (!out.open(nullptr, error)) {
        return fail(error);
    }

    Recorder r;
    r.patterns = record_patterns;
    r.named = {bus->device_cmd, bus->bio_cmd, bus->bio_info, bus->bio_resp};
    r.sample_prefix = bus->bio_sample;
    r.samples = with_samples;
    r.black_box = black_box;
    if (black_box) {
        r.bound = static_cast<size_t>((ring_mib > 0 ? ring_mib : ring_size_default) * (1 << 20));
        if (ring_seconds > 0)
            r.ring_us = static_cast<int64_t>(ring_seconds * 1e6);
        r.after_us = static_cast<int64_t>(after_seconds * 1e6);
        for (const auto* args : {&trigger_args, &trigger_key_args})
            for (const std::string& a : *args) {
                const size_t eq = a.find('=');
                const bool key = args == &trigger_key_args;
                r.triggers.push_back({key ? "set" : "publish", a.substr(0, eq), a.substr(eq + 1),
                                      (key ? "set " : "publish ") + a});
            }
        struct sigaction usr1 = {};
        usr1.sa_handler = [](int) { trigger_requested = true; };
        usr1.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &usr1, nullptr);
    }
    const auto start = Clock::now();
    if (duration > 0)
        r.deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(duration));

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
        std::vector<Cut> cuts;
        {
            std::unique_lock<std::mutex> hold(r.lock);
            r.ready.wait_for(hold, std::chrono::milliseconds(100), [&] { return r.done; });
            batch.swap(r.pending);
            cuts.swap(r.cuts);
            finished = r.done;
            lost = r.dropped;
        }
        size_t written = 0;
        for (const auto& e : batch) {
            written += queued_size(e);
            ++counts[e.kind];
            missed += e.has_sample && !e.sample.missed.empty();
        }
        total += static_cast<long long>(batch.size());
        // The batch's events up to each cut into the current file, then the cut.
        for (size_t i = 0, from = 0; failed.empty() && i <= cuts.size(); ++i) {
            const size_t to = i < cuts.size() ? cuts[i].at : batch.size();
            if (from < to && !out.write(batch, from, to, failed))
                break;
            from = to;
            // A window's losses go into its own file, before it closes.
            if (i < cuts.size() && (cuts[i].kind == Cut::note || out.count_lost(lost, failed)))
                out.cut(cuts[i], failed);
        }
        if (failed.empty())
            out.count_lost(lost, failed);
        if (!failed.empty())
            stop_requested = true;  // the reader ends; nothing more can be kept
        {
            std::lock_guard<std::mutex> hold(r.lock);
            r.queued -= written;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        char tail[96];
        snprintf(tail, sizeof tail, "  %.1f/s  %.1f MB", seconds > 0 ? total / seconds : 0.0,
                 out.file ? file_size(out.path) / 1e6 : 0.0);
        line = seconds_text(static_cast<int64_t>(seconds * 1e6));
        for (const char* kind : {"push", "sample", "publish", "set"}) {
            line += std::string("  ") + kind + " " + std::to_string(counts[kind]);
            if (with_samples && kind == std::string("sample"))
                line += " (missed " + std::to_string(missed) + ")";
        }
        line += tail;
        if (out.split || black_box)
            line += "  files " + std::to_string(out.files);
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
        return fail(failed);
    if (!out.close(wall_us(), error))
        return fail(error);
    if (lost > 0)
        bMSG::write_error_line("bmsg: " + std::to_string(lost) + " events lost: the file's writer fell behind");
    // The server closes a watcher that falls behind as it closes any client
    // of its class: the limit is the device's to set (docs/recording.md).
    if (r.lost.empty())
        return 0;
    std::string why = "lost the server: " + r.lost +
                      " (it ended, or the recorder fell behind by more than the server's "
                      "client-output-buffer-limit for normal clients)";
    if (out.kept == 0 && out.files == 1 && !black_box) {
        std::string ignored;
        out.failed(ignored);  // removes the empty recording
    }
    return fail(why);
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
    auto* ring = rec->add_option("--ring", ring_seconds,
                                 "Black box: keep the last SECONDS in memory and write nothing until a "
                                 "trigger (SIGUSR1, --trigger, --trigger-key); then that window and --after "
                                 "go into a new file, -o's name with the trigger's UTC time and name "
                                 "(rec.db: rec-20261125T221503Z-SYSTEM_STATUS.db)")
                     ->type_name("SECONDS")
                     ->check(CLI::PositiveNumber);
    auto* ring_size = rec->add_option("--ring-size", ring_mib,
                                      "Black box: memory for the window and the queue to the file together "
                                      "(MiB, default 512); the oldest go first, events that find no room "
                                      "during a window are counted lost")
                          ->type_name("MB")
                          ->check(CLI::PositiveNumber);
    auto* after = rec->add_option("--after", after_seconds,
                                  "Black box: go on SECONDS after the trigger (default 10); a trigger "
                                  "during them extends the same file")
                      ->type_name("SECONDS")
                      ->check(CLI::NonNegativeNumber);
    const auto named_glob = [](const std::string& v) {
        return v.find('=') == std::string::npos ? std::string("not NAME=PATTERN") : std::string();
    };
    auto* trigger = rec->add_option("--trigger", trigger_args,
                                    "Black box: a trigger when a message matching the glob PATTERN is "
                                    "published on CHANNEL (a glob too), e.g. SYSTEM_STATUS=*error*")
                        ->type_name("CHANNEL=PATTERN")
                        ->check(named_glob)
                        ->allow_extra_args(false);
    auto* trigger_key = rec->add_option("--trigger-key", trigger_key_args,
                                        "Black box: a trigger when setting KEY (a glob) is set to a value "
                                        "matching PATTERN")
                            ->type_name("KEY=PATTERN")
                            ->check(named_glob)
                            ->allow_extra_args(false);
    rec->add_option("--max-size", max_mib,
                    "Split into numbered files of at most MB MiB of events each (rec.db: rec-0001.db, "
                    "rec-0002.db, ...), each a whole recording")
        ->type_name("MB")
        ->check(CLI::PositiveNumber);
    rec->add_option("--max-duration", max_seconds,
                    "Split into numbered files of at most SECONDS each (by the events' times)")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    rec->add_option("--seal-to", seal_to_file,
                    "Seal the payloads and pixels to this public key (bmsg keygen): only its secret "
                    "key opens them; times, names, shapes and counts stay readable")
        ->type_name("PUBLIC_KEY_FILE");
    rec->add_option("--keep", keep_files, "Remove the oldest files this recorder made beyond N (split or black box)")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    rec->callback([&action, ring, ring_size, after, trigger, trigger_key] {
        if (ring->count() == 0 && ring_size->count() == 0)
            for (const auto* o : {after, trigger, trigger_key})
                if (o->count() > 0)
                    throw CLI::ValidationError(o->get_name(), "needs --ring or --ring-size");
        action = record;
    });
    add_play_command(app, action);
    add_info_commands(app, action);
    add_keygen_command(app, action);
}

} // namespace bmsg_tool
