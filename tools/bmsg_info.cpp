// bmsg info: what a recording holds. bmsg export: its samples as PNG files
// and its events as JSON lines.
#include "bimage.h"
#include "bmsg_record.h"
#include "picture.h"
#include "recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace bmsg_tool {

namespace {

std::string file_name, directory;
std::vector<std::string> file_names;  // in order; file_name is the one at work
std::string key_file;                 // of sealed recordings

std::string local_time(int64_t us)
{
    return recording::time_text(us, "%Y-%m-%d %H:%M:%S");
}

// What `info` adds up over several files.
struct Totals {
    int64_t span = 0;
    long long events = 0;
    std::map<std::pair<std::string, std::string>, long long> rows;
} totals;

int info_file()
{
    std::string error;
    auto file = recording::File::open(file_name, error);
    if (!file)
        return fail(file_name + ": " + error);
    std::map<std::pair<std::string, std::string>, long long> rows;
    struct Shapes {
        long long count = 0, missed = 0;
    };
    std::map<std::string, Shapes> shapes;  // "list WxH FORMAT"
    int64_t last = 0;
    long long total = 0;
    const bool read = file->each(
        [&](const recording::Event& e) {
            ++rows[{e.kind, e.name}];
            ++total;
            last = e.time_us;
            if (e.kind != "sample")
                return true;
            recording::Shape shape;
            Shapes& s = shapes[e.name + (recording::shape_of(e.payload, shape)
                                             ? " " + std::to_string(shape.width) + "x" + std::to_string(shape.height) +
                                                   " " + picture::format_name(shape.format)
                                             : " (not a descriptor)")];
            ++s.count;
            s.missed += !e.has_sample || !e.sample.missed.empty();
            return true;
        },
        false, error);
    if (!read)
        return fail(file_name + ": " + error);
    auto meta = file->meta();
    const int64_t started = atoll(meta["started_us"].c_str());
    const bool ended = !meta["ended_us"].empty();
    const int64_t span = (ended ? atoll(meta["ended_us"].c_str()) : std::max(last, started)) - started;
    const double seconds = span > 0 ? span / 1e6 : 0;
    printf("%s: %s from %s, %lld events, %s, %s\n", file_name.c_str(), seconds_text(span).c_str(),
           local_time(started).c_str(), total,
           meta["samples"] == "1" ? "pixels recorded" : "pixels not recorded",
           ended ? "closed" : "cut short (the recorder did not close it)");
    if (file->sealed())
        printf("  sealed: payloads and pixels open with the secret key only (--key)\n");
    if (const long long lost = atoll(meta["lost"].c_str()); lost > 0)
        printf("  %lld events lost: the recorder's writer fell behind (not in the file)\n", lost);
    if (!meta["trigger"].empty())
        printf("  triggered by %s at %s (%s trigger(s) in the window)\n", escaped(meta["trigger"].data(), meta["trigger"].size()).c_str(),
               local_time(atoll(meta["trigger_us"].c_str())).c_str(), meta["triggers"].c_str());
    totals.span += span;
    totals.events += total;
    for (const auto& row : rows)
        totals.rows[row.first] += row.second;
    printf("  %-8s %-32s %8s %10s\n", "kind", "list, channel or key", "count", "rate");
    for (const auto& row : rows)
        printf("  %-8s %-32s %8lld %8.2f/s\n", row.first.first.c_str(), row.first.second.c_str(),
               row.second, seconds > 0 ? row.second / seconds : 0.0);
    if (!shapes.empty())
        printf("  samples by list, shape and format:\n");
    for (const auto& s : shapes)
        printf("  %s %lld samples, %lld missed\n", s.first.c_str(), s.second.count, s.second.missed);
    return 0;
}

// Each file, then the sum over them when there are several.
int info(const Options&)
{
    for (const std::string& name : file_names) {
        file_name = name;
        if (info_file() != 0)
            return 1;
    }
    if (file_names.size() < 2)
        return 0;
    const double seconds = totals.span / 1e6;
    printf("total: %zu files, %s, %lld events\n", file_names.size(), seconds_text(totals.span).c_str(),
           totals.events);
    for (const auto& row : totals.rows)
        printf("  %-8s %-32s %8lld %8.2f/s\n", row.first.first.c_str(), row.first.second.c_str(),
               row.second, seconds > 0 ? row.second / seconds : 0.0);
    return 0;
}

// JSON text of `bytes`: valid UTF-8 as it is, each other byte b as the lone
// surrogate U+DC00+b (Python's "surrogateescape"), so the exact bytes can be
// got back and no text is taken for an escape.
std::string json(const std::string& bytes)
{
    std::string out = "\"";
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    char hex[8];
    for (size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        const size_t len = c < 0x80 ? 1 : utf8_length(p + i, n - i);
        if (len == 0) {
            snprintf(hex, sizeof hex, "\\udc%02x", c);
            out += hex;
            ++i;
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x20 || c == 0x7f) {
            snprintf(hex, sizeof hex, "\\u%04x", c);
            out += hex;
            ++i;
        } else {
            out.append(bytes, i, len);
            i += len;
        }
    }
    return out + "\"";
}

// Keeps letters, digits, '-', '_' and '.' of a modality for a file name.
std::string file_safe(const std::string& name)
{
    std::string out = name;
    for (char& c : out)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            c = '_';
    return out;
}

std::string errno_text()
{
    return errno == ELOOP ? "a symbolic link, not followed" : strerror(errno);
}

// The directory `name` (in `at`) as one only this user may use (0700): made
// when missing; an existing one is made 0700, and is refused when it is a
// symbolic link or someone else's. Its descriptor, or -1 with `error` set.
int private_directory(int at, const std::string& name, std::string& error)
{
    if (mkdirat(at, name.c_str(), 0700) != 0 && errno != EEXIST) {
        error = strerror(errno);
        return -1;
    }
    const int fd = openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || (st.st_uid != geteuid() && (errno = EPERM)) || fchmod(fd, 0700) != 0) {
        error = errno_text();
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

// A file written under a temporary name in a private directory and then
// renamed over `name`: whatever had that name (an earlier export's file, a
// symbolic link, a file linked elsewhere) is replaced, never written through.
// Mode 0600 whatever the umask. Removed unless put in place.
class NewFile {
public:
    NewFile(int dir, std::string name) : dir_(dir), name_(std::move(name)), temp_("." + name_ + ".new") {}
    ~NewFile()
    {
        if (fd_ >= 0)
            close(fd_);
        if (created_)
            unlinkat(dir_, temp_.c_str(), 0);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // The new file's descriptor, or -1 with `error` set. A temporary left
    // by an export that was killed is removed first: only this user can
    // have put it in the directory.
    int open(std::string& error)
    {
        unlinkat(dir_, temp_.c_str(), 0);
        fd_ = openat(dir_, temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        created_ = fd_ >= 0;
        if (fd_ < 0 || fchmod(fd_, 0600) != 0)
            error = errno_text();
        return error.empty() ? fd_ : -1;
    }
    // The file as a stream that owns its descriptor from now on.
    FILE* stream()
    {
        FILE* f = fdopen(fd_, "w");
        if (f)
            fd_ = -1;
        return f;
    }
    bool commit(std::string& error)
    {
        if (renameat(dir_, temp_.c_str(), dir_, name_.c_str()) != 0) {
            error = strerror(errno);
            return false;
        }
        created_ = false;
        return true;
    }

private:
    int dir_, fd_ = -1;
    bool created_ = false;
    std::string name_, temp_;
};

// A PNG put in place as NewFile does.
bool export_png(int dir, const std::string& name, const picture::Picture& pic, std::string& error)
{
    NewFile f(dir, name);
    if (f.open(error) < 0)
        return false;
    std::unique_ptr<FILE, int (*)(FILE*)> out(f.stream(), fclose);
    if (!out)
        error = strerror(errno);
    return out && picture::write_png(out.get(), pic, error) && f.commit(error);
}

int export_recording(const Options&)
{
    std::string error;
    // Every file is checked before anything is written.
    std::vector<std::unique_ptr<recording::File>> files;
    for (const std::string& name : file_names) {
        files.push_back(open_recording(name, key_file, true));
        if (!files.back())
            return 1;
    }
    // The images are biometric: only this user may read what is written,
    // and nothing found in the directories is written through.
    umask(077);
    const Fd top(private_directory(AT_FDCWD, directory, error));
    if (top.fd < 0)
        return fail(directory + ": " + error);
    const Fd samples(private_directory(top.fd, "samples", error));
    if (samples.fd < 0)
        return fail(directory + "/samples: " + error);
    const std::string events_path = directory + "/events.jsonl";
    NewFile events(top.fd, "events.jsonl");
    std::unique_ptr<FILE, int (*)(FILE*)> out(events.open(error) < 0 ? nullptr : events.stream(), fclose);
    if (!out)
        return fail(events_path + ": " + (error.empty() ? strerror(errno) : error));
    long long n = 0, pngs = 0;
    std::string failed;
    const auto write_line = [&](const std::string& line) {
        fprintf(out.get(), "%s}\n", line.c_str());
        return true;
    };
    for (size_t f = 0; f < files.size() && failed.empty(); ++f) {
        file_name = file_names[f];
        const bool read = files[f]->each(
            [&](const recording::Event& e) {
                std::string line = "{\"seq\":" + std::to_string(++n) + ",\"time_us\":" + std::to_string(e.time_us) +
                                   ",\"kind\":" + json(e.kind) + ",\"command\":" + json(e.command) +
                                   ",\"name\":" + json(e.name) + ",\"payload\":" + json(e.payload);
                recording::Shape shape;
                if (e.kind == "sample" && recording::shape_of(e.payload, shape)) {
                    line += ",\"width\":" + std::to_string(shape.width) + ",\"height\":" +
                            std::to_string(shape.height) + ",\"format\":" + json(picture::format_name(shape.format));
                    char name[32];
                    snprintf(name, sizeof name, "samples/%06lld-", n);
                    const std::string png = name + file_safe(e.sample.modality) + ".png";
                    if (!e.has_sample || !e.sample.missed.empty()) {
                        line += ",\"missed\":" + json(e.has_sample ? e.sample.missed : "pixels not recorded");
                        return write_line(line);
                    }
                    picture::Picture pic;
                    if (!picture::from_pixels(e.sample.pixels, static_cast<int>(shape.width),
                                              static_cast<int>(shape.height), shape.format, pic)) {
                        line += ",\"missed\":\"no picture of this format or size\"";
                    } else if (!export_png(samples.fd, png.substr(png.find('/') + 1), pic, failed)) {
                        failed = directory + "/" + png + ": " + failed;
                        return false;
                    } else {
                        line += ",\"png\":" + json(png);
                        ++pngs;
                    }
                }
                return write_line(line);
            },
            true, error);
        if (!read)
            return fail(file_name + ": " + error);
    }
    if (!failed.empty())
        return fail(failed);
    if (fflush(out.get()) != 0 || ferror(out.get()) || !events.commit(error))
        return fail(events_path + ": " + (error.empty() ? strerror(errno) : error));
    printf("%lld events to %s, %lld PNG files in %s/samples\n", n, events_path.c_str(), pngs,
           directory.c_str());
    return 0;
}

} // namespace

void add_info_commands(CLI::App& app, Action& action)
{
    auto* sub = app.add_subcommand(
        "info", "A recording's duration, counts and rates per list, channel and key, sample "
                "shapes and formats, missed pixels");
    sub->add_option("FILE", file_names, "Recordings, in order (the split files of one, several windows)")->required();
    sub->callback([&] { action = info; });

    auto* exp = app.add_subcommand(
        "export", "A recording's events as JSON lines (DIR/events.jsonl) and its samples as PNG "
                  "files (DIR/samples, written as `sample recv -o` writes them)");
    exp->add_option("FILE", file_names, "Recordings, in order: seq counts across them")->required();
    exp->add_option("-o,--output", directory, "Directory to write (made when missing)")
        ->required()
        ->type_name("DIR");
    add_key_option(exp, key_file);
    exp->callback([&] { action = export_recording; });
}

} // namespace bmsg_tool
