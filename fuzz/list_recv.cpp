// Fuzzes the reply handling of Messager::list_recv: the RPOP and BRPOP
// forms, with and without a key buffer, against any reply bytes.
//
// Input: byte 0 flags (bit 0 blocking pop, bit 1 key buffer given, bit 2
// negative buffer size), byte 1 buffer size, byte 2 key buffer size (signed),
// then the reply.
#include "harness.h"

#include <cstring>

using bmsg_fuzz::Parsed;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bmsg_fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    const bool blocking = flags & 1;
    const bool with_key = flags & 2;
    const bool any_size = flags & 4;
    const int buf_size = any_size ? -1 : in.byte();
    const int key_size = static_cast<int8_t>(in.byte());
    const std::string reply = in.rest();
    if (bmsg_fuzz::declares_huge_array(reply))
        return -1;

    // A negative size admits any length: the caller then knows its buffer
    // holds whatever can come, here the whole reply.
    const size_t room = any_size ? reply.size() : static_cast<size_t>(buf_size);
    const size_t key_room = key_size > 0 ? static_cast<size_t>(key_size) : 0;
    auto buf = bmsg_fuzz::block(room, '\xa5');
    auto key = bmsg_fuzz::block(key_room, '\x5a');

    const int rc = bmsg_fuzz::exchange(reply, [&](bMSG::Messager& m) {
        return m.list_recv("Q", buf.get(), buf_size, blocking ? 1 : 0,
                           with_key ? key.get() : nullptr, key_size);
    });

    const auto sent = bmsg_fuzz::sent();
    BMSG_FUZZ_CHECK(sent.size() == 1);
    BMSG_FUZZ_CHECK(blocking ? sent[0] == std::vector<std::string>({"BRPOP", "Q", "1"})
                             : sent[0] == std::vector<std::string>({"RPOP", "Q"}));

    const Parsed r = bmsg_fuzz::parse(reply);
    BMSG_FUZZ_CHECK((rc == -3) == !r);
    BMSG_FUZZ_CHECK(rc == -3 || rc == -5 || rc == -6 || rc >= 0);
    if (rc >= 0) {
        BMSG_FUZZ_CHECK(static_cast<size_t>(rc) <= room);
        BMSG_FUZZ_CHECK(rc == 0 || buf_size < 0 || rc < buf_size);
        BMSG_FUZZ_CHECK(bmsg_fuzz::untouched(buf.get(), rc, room, '\xa5'));
    }
    if (rc > 0) {
        // The bytes are the value's: the string answer, or the second
        // element of a two-element array.
        const redisReply* value = r->type == REDIS_REPLY_ARRAY ? r->element[1] : r.get();
        BMSG_FUZZ_CHECK(value->len == static_cast<size_t>(rc));
        BMSG_FUZZ_CHECK(memcmp(buf.get(), value->str, value->len) == 0);
    }
    if (!with_key || key_room == 0 || rc == -3)
        BMSG_FUZZ_CHECK(bmsg_fuzz::untouched(key.get(), 0, key_room, '\x5a'));
    else if (!bmsg_fuzz::untouched(key.get(), 0, key_room, '\x5a'))
        BMSG_FUZZ_CHECK(memchr(key.get(), '\0', key_room) != nullptr);
    if (rc >= 0 && with_key && key_room > 0 && r->type == REDIS_REPLY_STRING)
        BMSG_FUZZ_CHECK(strcmp(key.get(), "Q") == 0);
    return 0;
}
