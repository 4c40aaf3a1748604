// Fuzzes the reply handling of the four Messager::get overloads against any
// reply bytes.
//
// Input: byte 0 overload (modulo 4: text buffer, int, float, unsigned long),
// byte 1 buffer size for the text form, then the reply.
#include "harness.h"

#include <cstring>

using bmsg_fuzz::Parsed;

namespace {

// A number reader may write its variable only for the reply type it reads.
template <class T>
int get_number(const std::string& reply, T initial, bool may_change)
{
    T value = initial;
    const int rc = bmsg_fuzz::exchange(reply, [&](bMSG::Messager& m) { return m.get("k", &value); });
    if (!may_change)
        BMSG_FUZZ_CHECK(memcmp(&value, &initial, sizeof value) == 0);
    return rc;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bmsg_fuzz::Input in(data, size);
    const int overload = in.byte() % 4;
    const int buf_size = in.byte();
    const std::string reply = in.rest();
    if (bmsg_fuzz::declares_huge_array(reply))
        return -1;
    const Parsed r = bmsg_fuzz::parse(reply);
    const int type = r ? r->type : -1;

    int rc = 0;
    switch (overload) {
    case 0: {
        auto buf = bmsg_fuzz::block(static_cast<size_t>(buf_size), '\xa5');
        rc = bmsg_fuzz::exchange(reply, [&](bMSG::Messager& m) {
            return m.get("k", buf.get(), buf_size);
        });
        // All of a short enough string value, or nothing at all.
        const bool copies = type == REDIS_REPLY_STRING && r->len > 0 &&
                            r->len < static_cast<size_t>(buf_size);
        const size_t copied = copies ? r->len : 0;
        BMSG_FUZZ_CHECK(!copies || memcmp(buf.get(), r->str, copied) == 0);
        BMSG_FUZZ_CHECK(bmsg_fuzz::untouched(buf.get(), copied, buf_size, '\xa5'));
        break;
    }
    case 1:
        rc = get_number<int>(reply, 0x5a5a5a5a, type == REDIS_REPLY_INTEGER);
        break;
    case 2:
        rc = get_number<float>(reply, -1234.5f, type == REDIS_REPLY_STRING);
        break;
    default:
        rc = get_number<unsigned long>(reply, 0x5a5a5a5aUL, type == REDIS_REPLY_INTEGER);
        break;
    }

    const auto sent = bmsg_fuzz::sent();
    BMSG_FUZZ_CHECK(sent.size() == 1 && sent[0] == std::vector<std::string>({"GET", "k"}));
    BMSG_FUZZ_CHECK(rc == (r ? 0 : -8));
    return 0;
}
