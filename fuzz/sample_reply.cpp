// Fuzzes both forms of bio_sample_recv and bio_sample_read against any
// replies: no crash or leak, no write past `out`, an image null or whole with
// the pixels of segment <tag>A (4096 pixel bytes) or <tag>B (48); <tag>C has
// none; <tag> is @@@@@@@@ in the input. Input: byte 0 the form (bits 0-1;
// bit 2 `out` null, bit 3 seal headers), byte 1 the modalities (bits 0-1 how
// many, then two bits each: A, B, C), byte 2 `len`, then the replies.
#include "bimage.h"
#include "bshmem.h"
#include "harness.h"

#include <unistd.h>

namespace {

unsigned char pattern(char modality, size_t offset) { return offset * 131u + (offset >> 8) + modality * 17u; }

// The process's segments; their owner unlinks them at exit.
struct Segments {
    std::string tag = "F" + std::to_string(getpid() % 10000000 + 10000000).substr(1);
    std::vector<std::unique_ptr<bMSG::SharedMemory>> owned;
    Segments()
    {
        for (char m : {'A', 'B'}) {
            const size_t size = (m == 'A' ? 4096 : 48) + BImage::Image::header_size;
            owned.emplace_back(new bMSG::SharedMemory("/BIOMETRIC_SAMPLE_" + tag + m, size, true));
            owned.back()->write(size, 0, [&](unsigned char* p) { for (size_t i = 0; i < size; ++i) p[i] = pattern(m, i); });
        }
    }
};

Segments& segments() { static Segments own; return own; }

bool from_a_segment(const BImage::Image& image)
{
    const auto from = [&](char m) {
        int i = 0;
        while (i < image.count() && image.data[i] == pattern(m, BImage::Image::header_size + i))
            ++i;
        return i == image.count();
    };
    return from('A') || from('B');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string& tag = segments().tag;
    bmsg_fuzz::Input in{data, size};
    const uint8_t op = in.byte(), pick = in.byte();
    const int len = static_cast<int8_t>(in.byte());
    std::string replies = in.rest();
    if (bmsg_fuzz::declares_huge_array(replies))
        return -1;
    for (size_t at = 0; (at = replies.find("@@@@@@@@", at)) != std::string::npos;)
        replies.replace(at, tag.size(), tag);
    if (op & 8)
        bmsg_fuzz::seal(replies);
    std::vector<std::string> names;
    for (int i = 0; i < 1 + (pick & 3) % 3; ++i)
        names.push_back(tag + "ABC"[(pick >> (2 + 2 * i) & 3) % 3]);
    std::vector<const char*> modalities;
    for (const std::string& name : names)
        modalities.push_back(name.c_str());
    bmsg_fuzz::Guarded out(static_cast<size_t>(std::max(len, 0)));
    char* out_arg = op & 4 ? nullptr : out.get();
    const auto m = bmsg_fuzz::messager(replies);
    const int form = op & 3;
    const std::unique_ptr<BImage::Image> image(form == 0   ? m->bio_sample_recv(modalities[0], 1)
                                         : form == 1 ? m->bio_sample_recv(modalities, 1, out_arg, len)
                                         : form == 2 ? m->bio_sample_read(modalities[0])
                                                     : m->bio_sample_read(modalities, out_arg, len));
    BMSG_FUZZ_CHECK(!image || image->count() == 0 ||
                    (image->data == image->buffer && image->data && from_a_segment(*image)));
    BMSG_FUZZ_CHECK(out.intact());
    return 0;
}
