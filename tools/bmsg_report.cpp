// bmsg report: one HTML page of one or more recordings: a timeline per list,
// channel and key, the status messages, the samples' pictures and a black
// box's trigger. The page holds everything it shows (pictures as data URIs,
// its style inline) and runs no script: it opens anywhere, offline, on a
// phone too.
#include "bimage.h"
#include "bmsg_record.h"
#include "picture.h"
#include "recording.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

namespace bmsg_tool {

namespace {

std::vector<std::string> report_files;
std::string report_path;
std::string report_key;  // of sealed recordings

constexpr const char* style =
    "body{font:14px/1.4 sans-serif;color:#222;margin:0 auto;padding:8px 12px;max-width:1100px}"
    "h1{font-size:1.3em;margin:.3em 0}h2{font-size:1.1em;margin:1.4em 0 .4em}"
    "ul.files{padding-left:1.2em;margin:0}.note{color:#666}"
    ".trigger{border-left:4px solid #d22;background:#fdecec;padding:4px 8px;margin:8px 0}"
    ".tl{position:relative}.row{margin:4px 0}"
    ".label{font-size:12px;overflow-wrap:anywhere}.label small{color:#666}"
    ".track{position:relative;height:18px;border:1px solid #ddd;background:#f7f7f7 "
    "repeating-linear-gradient(90deg,#ddd 0 1px,transparent 1px 25%)}"
    ".ev{position:absolute;top:2px;bottom:2px;width:3px;margin-left:-1px;background:#36c}"
    ".ev.publish{background:#2a2}.ev.set{background:#e80}.ev.sample{background:#85c}"
    ".ev.missed{background:#d22}"
    ".cut{position:absolute;top:0;bottom:0;border-left:2px dashed #d22}"
    ".axis{display:flex;justify-content:space-between;font-size:11px;color:#666}"
    "table{border-collapse:collapse;width:100%;font-size:13px}"
    "th,td{text-align:left;vertical-align:top;padding:2px 4px;border-bottom:1px solid #eee}"
    "td.b{font-family:monospace;overflow-wrap:anywhere}td.t{white-space:nowrap}"
    ".samples{display:grid;grid-template-columns:repeat(auto-fill,minmax(150px,1fr));gap:8px;align-items:start}"
    "figure{margin:0;border:1px solid #ddd;padding:4px;font-size:12px;overflow-wrap:anywhere}"
    "img.sample{display:block;width:100%;height:auto;image-rendering:pixelated}"
    ".missed{color:#d22;font-weight:bold}"
    "summary{cursor:pointer}";

// Text for the page, in an element or a quoted attribute.
std::string html(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

// Recorded bytes as `bmsg subscribe` prints them (never markup), cut after
// `max` bytes.
std::string shown(const std::string& bytes, size_t max = 200)
{
    const size_t n = std::min(bytes.size(), max);
    return html(escaped(bytes.data(), n)) + (n < bytes.size() ? " …" : "");
}

// RFC 4648 base64 with padding, for data: URIs.
std::string base64(const std::string& bytes)
{
    const int variant = sodium_base64_VARIANT_ORIGINAL;
    std::string out(sodium_base64_ENCODED_LEN(bytes.size(), variant), '\0');
    sodium_bin2base64(&out[0], out.size(), reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                      variant);
    out.pop_back();  // the terminating NUL
    return out;
}

// A stream into memory (open_memstream), freed on every path.
struct MemoryStream {
    char* data = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&data, &size);
    MemoryStream() = default;
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    ~MemoryStream()
    {
        if (f)
            fclose(f);
        free(data);
    }
};

// The picture as a PNG data URI; empty with `error` set on failure.
std::string png_uri(const picture::Picture& pic, std::string& error)
{
    MemoryStream png;
    if (!png.f) {
        error = strerror(errno);
        return "";
    }
    if (!picture::write_png(png.f, pic, error))
        return "";
    return "data:image/png;base64," + base64(std::string(png.data, png.size));
}

// The page under a temporary name beside `path` (mode 0600: it holds the
// samples' pictures), renamed over `path` once complete: an existing file or
// link of that name is replaced, never written through, and a failed report
// leaves nothing half written.
class PageFile {
public:
    explicit PageFile(const std::string& path) : path_(path), temp_(path + ".XXXXXX")
    {
        const int fd = mkostemp(&temp_[0], O_CLOEXEC);
        made_ = fd >= 0;
        if (made_ && !(out_ = fdopen(fd, "w")))
            close(fd);
    }
    ~PageFile()
    {
        if (out_)
            fclose(out_);
        if (made_)
            unlink(temp_.c_str());
    }
    PageFile(const PageFile&) = delete;
    PageFile& operator=(const PageFile&) = delete;

    FILE* out() const { return out_; }
    bool commit(std::string& error)
    {
        const bool written = !ferror(out_);
        const int closed = fclose(out_);
        out_ = nullptr;
        if (!written || closed != 0 || rename(temp_.c_str(), path_.c_str()) != 0) {
            error = written ? strerror(errno) : "write error";
            return false;
        }
        made_ = false;
        return true;
    }

private:
    std::string path_, temp_;
    FILE* out_ = nullptr;
    bool made_ = false;
};

std::string clock_text(int64_t us, bool date)
{
    char ms[8];
    snprintf(ms, sizeof ms, ".%03d", static_cast<int>(us % 1000000 / 1000));
    return recording::time_text(us, date ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S") + ms;
}

// One event as the page shows it; pixels are read again when written.
struct Item {
    int64_t time_us = 0;
    std::string kind, name, payload;  // payload already shown()
    recording::Shape shape;           // samples
    std::string shape_text;           // samples: "40x30 RGB24"
    std::string missed;               // samples without pixels: why
    bool pixels = false;
};

struct Recording {
    std::string path;
    std::unique_ptr<recording::File> file;
    std::map<std::string, std::string> meta;
    size_t first = 0, count = 0;  // its items
};

// The page's time span: from the first event to the last (a black box's file
// starts long before its events), else from the first start to the last end.
struct Span {
    int64_t from = 0, to = 0;
    void take(int64_t us)
    {
        if (us <= 0)
            return;
        from = from == 0 ? us : std::min(from, us);
        to = std::max(to, us);
    }
    std::string left(int64_t us) const
    {
        char text[16];
        const double at = to > from ? 100.0 * (us - from) / (to - from) : 0.0;
        snprintf(text, sizeof text, "%.3f%%", std::min(std::max(at, 0.0), 100.0));
        return text;
    }
    std::string offset(int64_t us) const { return "+" + seconds_text(us - from); }
};

bool read_items(Recording& r, std::vector<Item>& items, std::string& error)
{
    r.first = items.size();
    const bool read = r.file->each(
        [&](const recording::Event& e) {
            Item item;
            item.time_us = e.time_us;
            item.kind = e.kind;
            item.name = e.name;
            item.payload = shown(e.payload);
            if (e.kind == "sample") {
                const bool descriptor = recording::shape_of(e.payload, item.shape);
                item.shape_text = descriptor ? std::to_string(item.shape.width) + "x" +
                                                   std::to_string(item.shape.height) + " " +
                                                   picture::format_name(item.shape.format)
                                             : "not a descriptor";
                item.missed = !e.has_sample ? "pixels not recorded"
                              : !descriptor ? "no picture without a descriptor"
                                            : e.sample.missed;
                item.pixels = item.missed.empty();
            }
            items.push_back(std::move(item));
            return true;
        },
        false, error);
    r.count = items.size() - r.first;
    return read;
}

void write_header(FILE* out, const std::vector<Recording>& recordings, const Span& span)
{
    fprintf(out, "<h1>Recording report</h1>\n<ul class=\"files\">\n");
    for (const Recording& r : recordings) {
        auto meta = r.meta;
        const int64_t started = atoll(meta["started_us"].c_str()), ended = atoll(meta["ended_us"].c_str());
        fprintf(out, "<li><b>%s</b>: %s, %lld events, %s, %s", shown(r.path, r.path.size()).c_str(),
                started > 0 ? ("from " + clock_text(started, true)).c_str() : "no start",
                static_cast<long long>(r.count),
                meta["samples"] == "1" ? "pixels recorded" : "pixels not recorded",
                ended > 0 ? ("closed after " + seconds_text(ended - started)).c_str()
                          : "cut short (the recorder did not close it)");
        if (const long long lost = atoll(meta["lost"].c_str()); lost > 0)
            fprintf(out, ", <span class=\"missed\">%lld events lost</span>", lost);
        fprintf(out, "</li>\n");
    }
    fprintf(out, "</ul>\n");
    // A black box's file names what made it (meta trigger, trigger_us, ...).
    for (const Recording& r : recordings) {
        std::string shown_meta;
        for (const auto& m : r.meta) {
            if (m.first.compare(0, 7, "trigger") != 0)
                continue;
            std::string value = shown(m.second);
            if (m.first.size() > 3 && m.first.compare(m.first.size() - 3, 3, "_us") == 0 && atoll(m.second.c_str()) > 0)
                value = clock_text(atoll(m.second.c_str()), true) + " (" + span.offset(atoll(m.second.c_str())) + ")";
            shown_meta += " <b>" + shown(m.first) + "</b> " + value;
        }
        if (!shown_meta.empty())
            fprintf(out, "<div class=\"trigger\">Trigger of %s:%s</div>\n", shown(r.path, r.path.size()).c_str(),
                    shown_meta.c_str());
    }
}

// One row per kind and list, channel or key; one mark per event, at its time.
void write_timeline(FILE* out, const std::vector<Item>& items, const std::vector<Recording>& recordings,
                    const Span& span)
{
    fprintf(out, "<h2>Timeline</h2>\n");
    if (items.empty()) {
        fprintf(out, "<p class=\"note\">No events.</p>\n");
        return;
    }
    std::map<std::pair<std::string, std::string>, std::vector<size_t>> rows;
    for (size_t i = 0; i < items.size(); ++i)
        rows[{items[i].kind, items[i].name}].push_back(i);
    fprintf(out, "<p class=\"note\">One mark per event, linked to it; red: a sample without its pixels.</p>\n"
                 "<div class=\"axis\">");
    for (int q = 0; q <= 4; ++q)
        fprintf(out, "<span>%s</span>", seconds_text((span.to - span.from) * q / 4).c_str());
    fprintf(out, "</div>\n<div class=\"tl\">\n");
    for (const auto& row : rows) {
        fprintf(out, "<div class=\"row\"><div class=\"label\">%s %s <small>%zu</small></div><div class=\"track\">",
                row.first.first.c_str(), shown(row.first.second).c_str(), row.second.size());
        for (const size_t i : row.second) {
            const Item& e = items[i];
            const bool missed = e.kind == "sample" && !e.pixels;
            fprintf(out,
                    "<a class=\"ev %s%s\" href=\"#%c%zu\" style=\"left:%s\" data-kind=\"%s\" data-name=\"%s\" "
                    "data-t=\"%lld\" title=\"%s %s\"></a>",
                    e.kind.c_str(), missed ? " missed" : "", e.kind == "sample" ? 's' : 'e', i + 1,
                    span.left(e.time_us).c_str(), e.kind.c_str(), shown(e.name).c_str(),
                    static_cast<long long>(e.time_us), span.offset(e.time_us).c_str(),
                    (e.kind == "sample" ? e.shape_text + (missed ? ", missed: " + html(e.missed) : "") : e.payload).c_str());
        }
        fprintf(out, "</div></div>\n");
    }
    for (const Recording& r : recordings)
        if (const auto t = r.meta.find("trigger_us"); t != r.meta.end() && atoll(t->second.c_str()) > 0)
            fprintf(out, "<div class=\"cut\" style=\"left:%s\" title=\"trigger\"></div>",
                    span.left(atoll(t->second.c_str())).c_str());
    fprintf(out, "</div>\n");
}

void write_status(FILE* out, const std::vector<Item>& items, const Span& span)
{
    fprintf(out, "<h2>Status messages</h2>\n");
    std::string rows;
    for (size_t i = 0; i < items.size(); ++i)
        if (items[i].kind == "publish")
            rows += "<tr><td class=\"t\">" + clock_text(items[i].time_us, false) + "<br><small>" +
                    span.offset(items[i].time_us) + "</small></td><td>" + shown(items[i].name) +
                    "</td><td class=\"b\">" + items[i].payload + "</td></tr>\n";
    if (rows.empty())
        fprintf(out, "<p class=\"note\">None.</p>\n");
    else
        fprintf(out, "<table><tr><th>Time</th><th>Channel</th><th>Message</th></tr>\n%s</table>\n", rows.c_str());
}

// The samples' pictures in recorded order, read again with their pixels.
bool write_samples(FILE* out, std::vector<Recording>& recordings, std::vector<Item>& items, const Span& span,
                   std::string& error)
{
    fprintf(out, "<h2>Samples</h2>\n<div class=\"samples\">\n");
    bool any = false;
    for (Recording& r : recordings) {
        size_t i = r.first;
        std::string failed;
        const bool read = r.file->each(
            [&](const recording::Event& e) {
                Item& item = items[i++];
                if (item.kind != "sample")
                    return true;
                any = true;
                std::string img;
                if (item.pixels) {
                    picture::Picture pic;
                    if (!picture::from_pixels(e.sample.pixels, static_cast<int>(item.shape.width),
                                              static_cast<int>(item.shape.height), item.shape.format, pic)) {
                        item.missed = "no picture of this format or size";
                    } else if (const std::string uri = png_uri(pic, failed); uri.empty()) {
                        return false;
                    } else {
                        img = "<img class=\"sample\" data-event=\"" + std::to_string(i) + "\" data-width=\"" +
                              std::to_string(item.shape.width) + "\" data-height=\"" +
                              std::to_string(item.shape.height) + "\" data-format=\"" +
                              picture::format_name(item.shape.format) + "\" alt=\"sample " +
                              std::to_string(i) + "\" src=\"" + uri + "\">";
                    }
                }
                if (img.empty())
                    img = "<p class=\"missed\" data-event=\"" + std::to_string(i) + "\">missed: " + html(item.missed) + "</p>";
                fprintf(out, "<figure id=\"s%zu\">%s<figcaption>%s %s<br>%s %s</figcaption></figure>\n", i,
                        img.c_str(), clock_text(item.time_us, false).c_str(), span.offset(item.time_us).c_str(),
                        shown(item.name.substr(item.name.find("_SAMPLE_") + 8)).c_str(), html(item.shape_text).c_str());
                return true;
            },
            true, error);
        if (!read || !failed.empty()) {
            error = r.path + ": " + (read ? failed : error);
            return false;
        }
    }
    fprintf(out, "</div>\n%s", any ? "" : "<p class=\"note\">None.</p>\n");
    return true;
}

void write_events(FILE* out, const std::vector<Item>& items, const Span& span)
{
    fprintf(out, "<h2>Events</h2>\n<details><summary>All %zu events</summary>\n<table>"
                 "<tr><th>#</th><th>Time</th><th>Kind</th><th>List, channel or key</th><th>Payload</th></tr>\n",
            items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        const Item& e = items[i];
        fprintf(out, "<tr id=\"e%zu\"><td>%zu</td><td class=\"t\">%s<br><small>%s</small></td><td>%s</td><td>%s</td>"
                     "<td class=\"b\">%s</td></tr>\n",
                i + 1, i + 1, clock_text(e.time_us, false).c_str(), span.offset(e.time_us).c_str(), e.kind.c_str(),
                shown(e.name).c_str(), e.kind == "sample" ? html(e.shape_text).c_str() : e.payload.c_str());
    }
    fprintf(out, "</table></details>\n");
}

int report(const Options&)
{
    std::vector<Recording> recordings;
    std::vector<Item> items;
    Span span;
    std::string error;
    for (const std::string& path : report_files) {
        Recording r{path, open_recording(path, report_key, true), {}, 0, 0};
        if (!r.file)
            return 1;
        if (!read_items(r, items, error))
            return fail(path + ": " + error);
        r.meta = r.file->meta();
        recordings.push_back(std::move(r));
    }
    for (const Item& e : items)
        span.take(e.time_us);
    for (Recording& r : recordings)
        if (items.empty())
            span.take(atoll(r.meta["started_us"].c_str())), span.take(atoll(r.meta["ended_us"].c_str()));
    PageFile page(report_path);
    FILE* out = page.out();
    if (!out)
        return fail(report_path + ": " + strerror(errno));
    fprintf(out, "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                 "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n"
                 "<title>bmsg report: %s</title>\n<style>%s</style></head><body>\n",
            shown(report_files.front()).c_str(), style);
    write_header(out, recordings, span);
    write_timeline(out, items, recordings, span);
    write_status(out, items, span);
    if (!write_samples(out, recordings, items, span, error))
        return fail(error);
    write_events(out, items, span);
    fprintf(out, "</body></html>\n");
    if (!page.commit(error))
        return fail(report_path + ": " + error);
    printf("%zu events, %zu recordings to %s\n", items.size(), recordings.size(), report_path.c_str());
    return 0;
}

} // namespace

void add_report_command(CLI::App& app, Action& action)
{
    auto* sub = app.add_subcommand(
        "report", "One HTML page of recordings (FILEs in order): a timeline per list, channel and key, "
                  "the status messages, the samples' pictures, a black box's trigger; nothing fetched, "
                  "no script (mode 0600: it holds the pictures)");
    sub->add_option("FILE", report_files, "Recordings, in order")->required();
    sub->add_option("-o,--output", report_path, "The page to write (replaced)")->required()->type_name("PAGE");
    add_key_option(sub, report_key);
    sub->callback([&] { action = report; });
}

} // namespace bmsg_tool
