// Fuzzes the reply handling of the sample receivers: both forms of
// Messager::bio_sample_recv and of Messager::bio_sample_read, against any
// reply bytes. Every call must give null or a whole image whose pixels are
// those of one of the process's segments, must not crash, leak or write
// into `out` past the NUL it ends the name with. Which reports a receiver
// makes of which reply is for the unit tests.
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
// (signed), then the replies, answered one per command on the first
// connection.
#include "bimage.h"
#include "bshmem.h"
#include "harness.h"

#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

// Whether the image's pixels are those of segment A or B from the start.
bool from_a_segment(const BImage::Image& image)
{
    for (char letter : {'A', 'B'}) {
        int i = 0;
        while (i < image.count() &&
               image.data[i] == pattern(letter, BImage::Image::header_size + static_cast<size_t>(i)))
            ++i;
        if (i == image.count())
            return true;
    }
    return false;
}

void clean_up() { segments().unlink(); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Segments& own = segments();
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
    for (const std::string& m : names)
        modalities.push_back(m.c_str());
    const size_t room = len > 0 ? static_cast<size_t>(len) : 0;
    auto out = bmsg_fuzz::block(room, '\x5a');
    char* out_arg = op & 4 ? nullptr : out.get();

    bmsg_fuzz::peer().answer_each(bmsg_fuzz::split_replies(reply));
    ImagePtr image;
    {
        bMSG::Messager m(bmsg_fuzz::peer().socket().c_str(), 0, 1);
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
    }
    bmsg_fuzz::peer().wait_idle();
    bmsg_fuzz::sent();

    if (image) {
        const int count = image->count();
        BMSG_FUZZ_CHECK(count == 0 || (image->data && image->buffer == image->data));
        BMSG_FUZZ_CHECK(count == 0 || from_a_segment(*image));
    }
    const char* nul = static_cast<const char*>(memchr(out.get(), '\0', room));
    const size_t written = nul ? static_cast<size_t>(nul - out.get()) + 1 : 0;
    BMSG_FUZZ_CHECK(bmsg_fuzz::untouched(out.get(), written, room, '\x5a'));
    return 0;
}
