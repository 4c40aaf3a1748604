// What the fuzz targets share: a scripted peer that answers the library's
// commands with the fuzzed bytes, guarded buffers, and a check that aborts
// (libFuzzer then keeps the input) when the library breaks its contract.
#ifndef BMSG_FUZZ_HARNESS_H
#define BMSG_FUZZ_HARNESS_H

#include "bmessager.h"
#include "fake_redis.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace bmsg_fuzz {

// Serves every input of the run.
inline bmsg_test::FakeRedis& peer() { static bmsg_test::FakeRedis instance; return instance; }

// Takes parameters off the front of an input; rest() is what is left.
struct Input {
    const uint8_t* data;
    size_t size;
    uint8_t byte() { return size ? (--size, *data++) : 0; }
    std::string rest() const { return std::string(reinterpret_cast<const char*>(data), size); }
};

// A Messager on the peer, which has `replies` ready for its commands.
inline std::unique_ptr<bMSG::Messager> messager(const std::string& replies)
{
    return peer().reply(replies), std::make_unique<bMSG::Messager>(peer().socket().c_str(), 0, 1);
}

// hiredis 0.14 allocates a declared array length up front: a huge one only
// costs the fuzzer time (the library sees no reply), so targets skip it.
inline bool declares_huge_array(const std::string& bytes)
{
    for (size_t at = bytes.find('*'); at != std::string::npos; at = bytes.find('*', at + 1))
        if (bytes[at + 1] != '-' && strtoull(bytes.c_str() + at + 1, nullptr, 10) > bytes.size())
            return true;
    return false;
}

// Gives each 32 bytes that begin with "BIMG" their right header hash
// (FNV-1a of bytes 0-27 at 28), so that mutated headers pass the hash check.
inline void seal(std::string& bytes)
{
    for (size_t at = bytes.find("BIMG"); at != std::string::npos && at + 32 <= bytes.size();
         at = bytes.find("BIMG", at + 1)) {
        uint32_t h = 2166136261u;
        for (size_t i = at; i < at + 28; ++i)
            h = (h ^ static_cast<unsigned char>(bytes[i])) * 16777619u;
        bytes.replace(at + 28, 4, reinterpret_cast<const char*>(&h), 4);  // little-endian, as the devices
    }
}

// `size` bytes for the library to write, then guard bytes it must not touch.
struct Guarded {
    explicit Guarded(size_t size) : size(size), bytes(size + 16, '\xa5') {}
    char* get() { return &bytes[0]; }
    bool intact() const { return bytes.find_first_not_of('\xa5', size) == std::string::npos; }
    size_t size;
    std::string bytes;
};

} // namespace bmsg_fuzz

#define BMSG_FUZZ_CHECK(cond) \
    ((cond) ? (void)0 : (fprintf(stderr, "%s:%d: contract broken: %s\n", __FILE__, __LINE__, #cond), abort()))

#endif
