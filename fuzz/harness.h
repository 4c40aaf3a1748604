// What the fuzz targets share: one scripted Redis peer that answers the
// library's command with the fuzzed bytes and closes the connection, a
// reader for the call's parameters at the front of an input, the reply a
// correct client makes of the same bytes, and a check that aborts (so that
// libFuzzer keeps the input) when the library breaks its contract.
//
// Adding a target: one source file fuzz/<name>.cpp defining
// LLVMFuzzerTestOneInput, the line bmsg_fuzz_target(<name>) in
// fuzz/CMakeLists.txt, and a few seeds in fuzz/corpus/<name>/.
#ifndef BMSG_FUZZ_HARNESS_H
#define BMSG_FUZZ_HARNESS_H

#include "bmessager.h"
#include "fake_redis.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace bmsg_fuzz {

// The peer serves every input of the run, one connection each.
inline bmsg_test::FakeRedis& peer()
{
    static bmsg_test::FakeRedis instance;
    return instance;
}

// Takes parameters off the front of an input; what is left is the reply.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    // The next byte, 0 once the input is used up.
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    std::string rest()
    {
        std::string r(reinterpret_cast<const char*>(data_) + pos_, size_ - pos_);
        pos_ = size_;
        return r;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// Runs `call` on a fresh Messager whose first command the peer answers with
// `reply` before closing; returns once the peer is done with the connection.
template <class Call>
int exchange(const std::string& reply, Call call)
{
    peer().answer(reply);
    int rc;
    {
        bMSG::Messager m(peer().socket().c_str(), 0, 1);
        rc = call(m);
    }
    peer().wait_idle();
    return rc;
}

// The commands the library sent for the last exchange.
inline std::vector<std::vector<std::string>> sent() { return peer().take_commands(); }

struct ReplyFree {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};
using Parsed = std::unique_ptr<redisReply, ReplyFree>;

// The first whole reply in `bytes`, or null when they hold none (cut off or
// malformed): then the library must report that no reply came.
inline Parsed parse(const std::string& bytes)
{
    redisReader* reader = redisReaderCreate();
    void* reply = nullptr;
    if (redisReaderFeed(reader, bytes.data(), bytes.size()) != REDIS_OK ||
        redisReaderGetReply(reader, &reply) != REDIS_OK)
        reply = nullptr;
    redisReaderFree(reader);
    return Parsed(static_cast<redisReply*>(reply));
}

// Whether `bytes` declare an array longer than they could hold. hiredis
// allocates a declared length up front (up to INT_MAX pointers) before it
// sees the reply is cut off; under AddressSanitizer freeing such a block
// takes seconds, past the fuzzers' time-out, while the library only sees no
// reply, as for any cut-off reply. Targets skip these inputs.
inline bool declares_huge_array(const std::string& bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != '*' || (i > 0 && bytes[i - 1] != '\n'))
            continue;
        size_t n = 0;
        const size_t digits = i + 1 < bytes.size() && bytes[i + 1] == '+' ? i + 2 : i + 1;
        for (size_t j = digits; j < bytes.size() && isdigit(static_cast<unsigned char>(bytes[j]));
             ++j)
            if ((n = n * 10 + static_cast<size_t>(bytes[j] - '0')) > bytes.size())
                return true;
    }
    return false;
}

// `bytes` cut into the whole replies they hold, in order, for a peer that
// answers several commands; what follows the last whole reply (cut off or
// malformed) is the last piece, which answers no command.
inline std::vector<std::string> split_replies(const std::string& bytes)
{
    std::vector<std::string> pieces;
    redisReader* reader = redisReaderCreate();
    size_t done = 0;
    if (redisReaderFeed(reader, bytes.data(), bytes.size()) == REDIS_OK) {
        void* reply = nullptr;
        while (redisReaderGetReply(reader, &reply) == REDIS_OK && reply) {
            freeReplyObject(reply);
            reply = nullptr;
            const size_t end = bytes.size() - (reader->len - reader->pos);
            pieces.push_back(bytes.substr(done, end - done));
            done = end;
        }
    }
    redisReaderFree(reader);
    if (done < bytes.size())
        pieces.push_back(bytes.substr(done));
    return pieces;
}

// A heap block of exactly `size` bytes (none for 0) filled with `fill`, so
// that the sanitizer catches any write past it and the test any write in it.
inline std::unique_ptr<char[]> block(size_t size, char fill)
{
    std::unique_ptr<char[]> b(new char[size]);
    std::fill(b.get(), b.get() + size, fill);
    return b;
}

inline bool untouched(const char* p, size_t from, size_t to, char fill)
{
    for (size_t i = from; i < to; ++i)
        if (p[i] != fill)
            return false;
    return true;
}

// Run by a failed check before it aborts: a target's clean-up of what
// outlives the process (shared-memory segments), which no exit handler does
// once libFuzzer has caught the abort.
inline void (*&on_failure())()
{
    static void (*hook)() = nullptr;
    return hook;
}

[[noreturn]] inline void fail(const char* what, const char* file, int line)
{
    fprintf(stderr, "%s:%d: contract broken: %s\n", file, line, what);
    if (on_failure())
        on_failure()();
    abort();
}

} // namespace bmsg_fuzz

#define BMSG_FUZZ_CHECK(cond) ((cond) ? (void)0 : ::bmsg_fuzz::fail(#cond, __FILE__, __LINE__))

#endif
