// Fuzzes the reply handling of the sample receivers: both forms of
// Messager::bio_sample_recv and of Messager::bio_sample_read, against any
// reply bytes. Every call must give a new image whose pixels come from the
// modality's segment, or null, with exactly the reports a correct receiver
// makes of the same bytes (worked out here from hiredis's own parse), and no
// write into `out` past what it reports.
//
// The process creates two segments with known content: modality <tag>A
// with room for 4096 pixel bytes and <tag>B with room for 48; <tag>C has
// none. <tag> is unique to the process; in the reply bytes it is written
// @@@@@@@@ (same length), so that seeds and the fuzzer can name the
// modalities in keys.
//
// Input: byte 0 the operation (modulo 4: recv, recv of a vector, read, read
// of a vector; bit 2: `out` null; bit 3: give every 32 bytes that begin
// with the header magic "BIMG" their right hash, so that mutated headers
// get past the hash check to the loading), byte 1 the modalities (bits 0-1:
// one, two or three; then two bits per modality: A, B or C), byte 2 `len`
// (signed), then the reply. The reads take one reply per command (LRANGE,
// and RPOP after a missing segment), in order, from the whole replies the
// bytes hold, across the new connection a dropped one is followed by.
#include "bimage.h"
#include "bshmem.h"
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <utility>

using bmsg_fuzz::Parsed;

extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));

namespace {

using ImagePtr = std::unique_ptr<BImage::Image>;

const std::string prefix = "BIOMETRIC_SAMPLE_";
const std::string placeholder = "@@@@@@@@";

unsigned char pattern(char modality, size_t offset)
{
    return static_cast<unsigned char>(offset * 131u + (offset >> 8) +
                                      static_cast<size_t>(modality) * 17u);
}

// The process's segments, unlinked when it exits (or fails).
struct Segments {
    std::string tag;
    std::vector<std::unique_ptr<bMSG::SharedMemory>> owned;

    Segments()
    {
        char t[16];
        snprintf(t, sizeof t, "F%07d", static_cast<int>(getpid() % 10000000));
        tag = t;
        remove_stale();
        add('A', 4096);
        add('B', 48);
    }

    void add(char modality, size_t pixels)
    {
        const size_t capacity = pixels + BImage::Image::header_size;
        owned.emplace_back(new bMSG::SharedMemory("/" + prefix + tag + modality, capacity, true));
        std::vector<unsigned char> payload(capacity);
        for (size_t i = 0; i < capacity; ++i)
            payload[i] = pattern(modality, i);
        owned.back()->write(payload.data(), capacity, 0);
    }

    // Segments of runs that were killed, by a process that is gone.
    static void remove_stale()
    {
        DIR* dir = opendir("/dev/shm");
        if (!dir)
            return;
        while (const dirent* entry = readdir(dir)) {
            int pid = 0;
            char letter = 0;
            char end = 0;
            const std::string format = prefix + "F%7d%c%c";
            if (sscanf(entry->d_name, format.c_str(), &pid, &letter, &end) == 2 &&
                strlen(entry->d_name) == prefix.size() + 9 && (letter == 'A' || letter == 'B') &&
                kill(pid, 0) != 0 && errno == ESRCH)
                shm_unlink(("/" + std::string(entry->d_name)).c_str());
        }
        closedir(dir);
    }

    void unlink()
    {
        for (const auto& segment : owned)
            shm_unlink(segment->name.c_str());
    }

    // The letter of one of these segments named `name`, or 0.
    char ours(const std::string& name) const
    {
        for (const auto& segment : owned)
            if (segment->name == name)
                return name.back();
        return 0;
    }
};

Segments& segments()
{
    static Segments instance;
    return instance;
}

// The header hash (FNV-1a of bytes 0 to 27, little-endian at 28) put into
// every 32 bytes of `bytes` that begin with "BIMG".
void seal(std::string& bytes)
{
    for (size_t at = bytes.find("BIMG"); at != std::string::npos && at + 32 <= bytes.size();
         at = bytes.find("BIMG", at + 1)) {
        uint32_t h = 2166136261u;
        for (size_t i = at; i < at + 28; ++i)
            h = (h ^ static_cast<unsigned char>(bytes[i])) * 16777619u;
        for (size_t i = 0; i < 4; ++i)
            bytes[at + 28 + i] = static_cast<char>(h >> (8 * i));
    }
}

// Catches what the library prints during one call: the report's prefix on
// stderr, its message on stdout.
class Capture {
public:
    Capture()
    {
        out_ = memfd_create("bmsg-fuzz-out", MFD_CLOEXEC);
        err_ = memfd_create("bmsg-fuzz-err", MFD_CLOEXEC);
        saved_out_ = dup(1);
        saved_err_ = dup(2);
        if (out_ < 0 || err_ < 0 || saved_out_ < 0 || saved_err_ < 0)
            abort();
    }

    void start()
    {
        fflush(stdout);
        if (ftruncate(out_, 0) != 0 || ftruncate(err_, 0) != 0)
            abort();
        lseek(out_, 0, SEEK_SET);
        lseek(err_, 0, SEEK_SET);
        dup2(out_, 1);
        dup2(err_, 2);
        active_ = true;
    }

    // Puts the streams back; the text caught goes to `out` and `err`.
    void stop(std::string& out, std::string& err)
    {
        restore();
        out = contents(out_);
        err = contents(err_);
    }

    // When a sanitizer reports during a call, its report reaches stderr.
    void dump()
    {
        if (!active_)
            return;
        restore();
        const std::string caught = contents(err_);
        (void)!::write(2, caught.data(), caught.size());
    }

private:
    void restore()
    {
        fflush(stdout);
        dup2(saved_out_, 1);
        dup2(saved_err_, 2);
        active_ = false;
    }

    static std::string contents(int fd)
    {
        std::string s(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
        if (pread(fd, &s[0], s.size(), 0) != static_cast<ssize_t>(s.size()))
            abort();
        return s;
    }

    int out_, err_, saved_out_, saved_err_;
    bool active_ = false;
};

Capture& capture()
{
    static Capture instance;
    return instance;
}

// What a correct receiver does with the replies.
struct Expected {
    std::vector<std::vector<std::string>> commands;
    std::vector<std::vector<std::string>> scripts{{}};  // replies per connection
    std::vector<std::pair<std::string, std::string>> reports;  // function, message
    bool image = false;
    std::string segment;  // whose pixels the image holds
    unsigned width = 0, height = 0;
    BImage::ImageFormat format = BImage::NV12;
    bool dropped = false;  // no connection held at the end
    bool names_out = false;  // a modality name is written to `out`...
    std::string named;       // ...this one, cut to `len`
};

void report(Expected& e, const char* func, const std::string& message)
{
    e.reports.emplace_back(func, message);
}

std::string cstr(const std::string& s)
{
    return s.substr(0, strlen(s.c_str()));
}

// Pixel room of an existing segment as an opener of any size sees it, or -1.
long long segment_room(const std::string& name)
{
    const int fd = shm_open(name.c_str(), O_RDWR, 0666);
    if (fd < 0)
        return -1;
    struct stat st;
    const bool ok = fstat(fd, &st) == 0;
    close(fd);
    return ok ? static_cast<long long>(st.st_size) - 48 - 32 : -1;
}

// Loading a descriptor for `modality`; true when its segment is missing.
// The header decoder itself is checked by the parse_image_header target.
bool load(Expected& e, const char* func, const std::string& descriptor, const std::string& modality)
{
    unsigned int width = 0, height = 0;
    unsigned long size = 0;
    BImage::ImageFormat format = BImage::NV12;
    if (descriptor.size() != 32 ||
        BImage::Image::parse_image_header(reinterpret_cast<const unsigned char*>(descriptor.data()),
                                          width, height, size, format) < 1) {
        report(e, func, "load image failed");
        return false;
    }
    unsigned char borrowed = 0;
    const BImage::Image shape(static_cast<int>(width), static_cast<int>(height), format, &borrowed);
    if (shape.count() < 0) {
        report(e, func, "load image failed");
        return false;
    }
    const std::string segment = "/" + prefix + cstr(modality);
    if (segment_room(segment) < shape.count()) {
        report(e, func, "shared memory is invalid");
        return true;
    }
    e.image = true;
    e.segment = segment;
    e.width = width;
    e.height = height;
    e.format = format;
    return false;
}

// The replies in order, handed out one per command to the connections.
class Replies {
public:
    Replies(Expected& e, std::vector<std::string> pieces) : e_(e), pieces_(std::move(pieces)) {}

    // The reply to `command`, null when none comes. A command goes out (and
    // the peer records it) only on a connection that has not failed and
    // while replies are left; without one the connection fails.
    Parsed send(std::vector<std::string> command)
    {
        if (failed_)
            return nullptr;
        if (next_ == pieces_.size()) {
            failed_ = true;
            return nullptr;
        }
        e_.commands.push_back(std::move(command));
        e_.scripts.back().push_back(pieces_[next_]);
        Parsed r = bmsg_fuzz::parse(pieces_[next_++]);
        failed_ = !r;
        return r;
    }

    void drop() { e_.dropped = true; }

    // The connection a call opens after a drop.
    void reconnect()
    {
        if (!e_.dropped)
            return;
        e_.dropped = false;
        failed_ = false;
        e_.scripts.emplace_back();
    }

private:
    Expected& e_;
    std::vector<std::string> pieces_;
    size_t next_ = 0;
    bool failed_ = false;
};

void expect_read(Expected& e, Replies& replies, const std::string& modality)
{
    replies.reconnect();
    const std::string key = prefix + modality;
    const Parsed r = replies.send({"LRANGE", key, "-1", "-1"});
    if (!r || r->type == REDIS_REPLY_NIL)
        return;
    if (r->type != REDIS_REPLY_ARRAY) {
        report(e, "bio_sample_read",
               "bad data type: " + std::to_string(r->type) + ", value is INT " +
                   std::to_string(r->integer));
        replies.drop();
        return;
    }
    if (r->elements == 0)
        return;
    const redisReply* d = r->element[0];
    if (d->type != REDIS_REPLY_STRING) {
        report(e, "bio_sample_read", "bad data type in array: " + std::to_string(d->type));
        return;
    }
    if (load(e, "bio_sample_read", std::string(d->str, d->len), modality))
        replies.send({"RPOP", key});
}

void expect_recv(Expected& e, const std::string& reply, const std::string& modality)
{
    e.scripts[0].push_back(reply);
    e.commands.push_back({"BRPOP", prefix + modality, "1"});
    const Parsed r = bmsg_fuzz::parse(reply);
    if (!r || r->type == REDIS_REPLY_NIL)
        return;
    if (r->type != REDIS_REPLY_STRING)
        report(e, "bio_sample_recv", "bad data type: " + std::to_string(r->type));
    else
        load(e, "bio_sample_recv", std::string(r->str, r->len), modality);
}

void expect_recv_any(Expected& e, const std::string& reply, const std::string& keys, bool has_out,
                     int len)
{
    e.scripts[0].push_back(reply);
    e.commands.push_back({"BRPOP", keys, "1"});
    const Parsed r = bmsg_fuzz::parse(reply);
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return;
    const redisReply* key = r->element[0];
    if (key->type != REDIS_REPLY_STRING) {
        report(e, "bio_sample_recv", "bad data type: " + std::to_string(key->type));
        return;
    }
    const std::string k(key->str, key->len);
    if (k.compare(0, prefix.size(), prefix) != 0) {
        report(e, "bio_sample_recv", "bad modality: " + cstr(k));
        return;
    }
    // The name goes out as a C string, cut to the room.
    const std::string modality = k.substr(prefix.size());
    e.named = cstr(modality);
    e.names_out = has_out && len > 0;
    if (!e.names_out || e.named.size() >= static_cast<size_t>(len)) {
        report(e, "bio_sample_recv", "buffer size too small: " + std::to_string(len));
        return;
    }
    const redisReply* value = r->element[1];
    if (value->type == REDIS_REPLY_NIL)
        return;
    if (value->type != REDIS_REPLY_STRING)
        report(e, "bio_sample_recv", "bad data type: " + std::to_string(value->type));
    else
        load(e, "bio_sample_recv", std::string(value->str, value->len), modality);
}

void expect_read_any(Expected& e, const std::string& reply, const std::vector<std::string>& names,
                     bool has_out, int len)
{
    Replies replies(e, bmsg_fuzz::split_replies(reply));
    for (const std::string& m : names) {
        expect_read(e, replies, m);
        if (e.image) {
            e.named = m;
            e.names_out = has_out && len > 0;
            return;
        }
    }
}

// Whether the caught text is exactly these reports: on stderr each one's
// "bMSG ERROR <func>[<line>]:", on stdout its message and a line break.
bool printed_reports(const Expected& e, const std::string& out, const std::string& err)
{
    static const std::string head = "bMSG ERROR ";
    std::string messages;
    size_t pos = 0;
    for (const auto& r : e.reports) {
        const std::string start = head + r.first + "[";
        if (err.compare(pos, start.size(), start) != 0)
            return false;
        pos += start.size();
        while (pos < err.size() && isdigit(static_cast<unsigned char>(err[pos])))
            ++pos;
        if (err.compare(pos, 2, "]:") != 0)
            return false;
        pos += 2;
        messages += r.second + "\n";
    }
    return pos == err.size() && out == messages;
}

void clean_up()
{
    capture().dump();
    segments().unlink();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Segments& own = segments();
    Capture& cap = capture();
    bmsg_fuzz::on_failure() = clean_up;
    if (__sanitizer_set_death_callback)
        __sanitizer_set_death_callback(clean_up);

    bmsg_fuzz::Input in(data, size);
    const uint8_t op = in.byte();
    const uint8_t pick = in.byte();
    const int len = static_cast<int8_t>(in.byte());
    std::string reply = in.rest();
    if (bmsg_fuzz::declares_huge_array(reply))
        return -1;
    for (size_t at = 0; (at = reply.find(placeholder, at)) != std::string::npos;)
        reply.replace(at, placeholder.size(), own.tag);
    if (op & 8)
        seal(reply);

    std::vector<std::string> names;
    for (int i = 0, n = 1 + (pick & 3) % 3; i < n; ++i)
        names.push_back(own.tag + "ABC"[(pick >> (2 + 2 * i) & 3) % 3]);
    std::vector<const char*> modalities;
    std::string keys;
    for (const std::string& m : names) {
        modalities.push_back(m.c_str());
        keys += (keys.empty() ? "" : " ") + prefix + m;
    }
    const bool has_out = !(op & 4);
    const size_t room = len > 0 ? static_cast<size_t>(len) : 0;
    auto out = bmsg_fuzz::block(room, '\x5a');
    char* out_arg = has_out ? out.get() : nullptr;

    Expected e;
    switch (op & 3) {
    case 0:
        expect_recv(e, reply, names[0]);
        break;
    case 1:
        expect_recv_any(e, reply, keys, has_out, len);
        break;
    case 2: {
        Replies replies(e, bmsg_fuzz::split_replies(reply));
        expect_read(e, replies, names[0]);
        break;
    }
    default:
        expect_read_any(e, reply, names, has_out, len);
        break;
    }

    for (const auto& script : e.scripts)
        bmsg_fuzz::peer().answer_each(script);
    ImagePtr image;
    bool connected;
    std::string printed, errors;
    {
        bMSG::Messager m(bmsg_fuzz::peer().socket().c_str(), 0, 1);
        cap.start();
        switch (op & 3) {
        case 0:
            image.reset(m.bio_sample_recv(modalities[0], 1));
            break;
        case 1:
            image.reset(m.bio_sample_recv(modalities, 1, out_arg, len));
            break;
        case 2:
            image.reset(m.bio_sample_read(modalities[0]));
            break;
        default:
            image.reset(m.bio_sample_read(modalities, out_arg, len));
            break;
        }
        cap.stop(printed, errors);
        connected = m.redis_context() != nullptr;
    }
    bmsg_fuzz::peer().wait_idle();

    BMSG_FUZZ_CHECK(bmsg_fuzz::sent() == e.commands);
    BMSG_FUZZ_CHECK(printed_reports(e, printed, errors));
    BMSG_FUZZ_CHECK(connected == !e.dropped);
    BMSG_FUZZ_CHECK(!image == !e.image);
    if (image) {
        BMSG_FUZZ_CHECK(image->width == static_cast<int>(e.width) &&
                        image->height == static_cast<int>(e.height) && image->format == e.format);
        const int count = image->count();
        BMSG_FUZZ_CHECK(count == 0 || (image->data && image->buffer == image->data));
        const char letter = own.ours(e.segment);
        for (int i = 0; letter && i < count; ++i)
            BMSG_FUZZ_CHECK(image->data[i] == pattern(letter, 32 + static_cast<size_t>(i)));
    }
    // The name, cut to `len` and NUL-terminated; nothing written past it.
    size_t written = 0;
    if (e.names_out) {
        written = std::min(e.named.size(), room - 1);
        BMSG_FUZZ_CHECK(memcmp(out.get(), e.named.data(), written) == 0 && out[written] == '\0');
        ++written;
    }
    BMSG_FUZZ_CHECK(bmsg_fuzz::untouched(out.get(), written, room, '\x5a'));
    return 0;
}
