// Fuzzes the reply handling of Messager::get (four forms), list_recv and the Lua get: no
// crash, no write past the caller's buffers, in Lua one value or nil and a message. Input:
// byte 0 the operation (modulo 3), its parameters, then the reply. get: form (modulo 4),
// text buffer size. list_recv: flags (bit 0 BRPOP, bit 1 key buffer, bit 2 size -1), size
// (unless bit 2), key size (signed). Lua get: none.
#include "harness.h"

#include <lua.hpp>

extern "C" int luaopen_bmsg(lua_State* L);

namespace {

void get(bmsg_fuzz::Input& in)
{
    const int form = in.byte() % 4, size = in.byte();
    bmsg_fuzz::Guarded text(static_cast<size_t>(size));
    const auto m = bmsg_fuzz::messager(in.rest());
    int i;  float f;  unsigned long u;
    form == 0 ? m->get("k", text.get(), size) : form == 1 ? m->get("k", &i) : form == 2 ? m->get("k", &f) : m->get("k", &u);
    BMSG_FUZZ_CHECK(text.intact());
}

void list_recv(bmsg_fuzz::Input& in)
{
    const uint8_t flags = in.byte();
    const int size = flags & 4 ? -1 : in.byte();
    const int key_size = static_cast<int8_t>(in.byte());
    const std::string reply = in.rest();
    // Size -1 admits any length: the buffer holds whatever can come.
    bmsg_fuzz::Guarded value(size < 0 ? reply.size() : static_cast<size_t>(size));
    bmsg_fuzz::Guarded key(static_cast<size_t>(std::max(key_size, 0)));
    const int rc = bmsg_fuzz::messager(reply)->list_recv("Q", value.get(), size, flags & 1,
                                                        flags & 2 ? key.get() : nullptr, key_size);
    BMSG_FUZZ_CHECK(value.intact() && key.intact() && rc <= static_cast<int>(value.size));
}

void lua_get(bmsg_fuzz::Input& in)
{
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    lua_register(L, "open_bmsg", luaopen_bmsg);
    bmsg_fuzz::peer().reply(in.rest());
    luaL_dostring(L, ("m = open_bmsg().messager.new('" + bmsg_fuzz::peer().socket() + "', 0, 1)").c_str());
    BMSG_FUZZ_CHECK(luaL_dostring(L, "local function fine(n, v, m) return n == 1 or n == 2 and v == nil and "
                                     "type(m) == 'string' end local function count(...) return select('#', ...), ... end "
                                     "return fine(count(m:get('k')))") == 0 && lua_toboolean(L, -1));
    lua_close(L);  // finalises the messager, which closes its connection
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bmsg_fuzz::Input in{data, size};
    if (bmsg_fuzz::declares_huge_array(in.rest()))
        return -1;
    const int op = in.byte() % 3;
    op == 0 ? get(in) : op == 1 ? list_recv(in) : lua_get(in);
    return 0;
}
