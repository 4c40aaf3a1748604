// Fuzzes the reply conversion of the Lua method messager:get against any
// reply bytes: a fresh Lua state loads the module, makes a messager on the
// scripted peer and calls m:get("k"), whose results must be what a correct
// conversion makes of the same bytes.
//
// Input: the reply.
#include "harness.h"

#include <lua.hpp>

#include <cstring>

extern "C" int luaopen_bmsg(lua_State* L);

using bmsg_fuzz::Parsed;

namespace {

bool is_string(lua_State* L, int index, const char* str, size_t len)
{
    size_t n = 0;
    const char* s = lua_type(L, index) == LUA_TSTRING ? lua_tolstring(L, index, &n) : nullptr;
    return s && n == len && memcmp(s, str, len) == 0;
}

bool is_number(lua_State* L, int index, lua_Number value)
{
    return lua_type(L, index) == LUA_TNUMBER && lua_tonumber(L, index) == value;
}

// An integer reply as Lua holds it after lua_pushinteger.
lua_Number as_number(long long integer)
{
    return static_cast<lua_Number>(static_cast<lua_Integer>(integer));
}

bool is_failure(lua_State* L, int results, const char* message)
{
    return results == 2 && lua_isnil(L, -2) && is_string(L, -1, message, strlen(message));
}

// An array becomes a table of its string and integer elements, at their
// positions; other elements leave holes.
bool is_table_of(lua_State* L, const redisReply* r)
{
    if (lua_type(L, -1) != LUA_TTABLE)
        return false;
    size_t kept = 0;
    bool same = true;
    for (size_t i = 0; i < r->elements; ++i) {
        const redisReply* e = r->element[i];
        lua_rawgeti(L, -1, static_cast<int>(i + 1));
        if (e->type == REDIS_REPLY_STRING)
            same = same && is_string(L, -1, e->str, e->len);
        else if (e->type == REDIS_REPLY_INTEGER)
            same = same && is_number(L, -1, as_number(e->integer));
        else
            same = same && lua_isnil(L, -1);
        kept += e->type == REDIS_REPLY_STRING || e->type == REDIS_REPLY_INTEGER;
        lua_pop(L, 1);
    }
    size_t keys = 0;
    lua_pushnil(L);
    while (lua_next(L, -2)) {
        ++keys;
        lua_pop(L, 1);
    }
    return same && keys == kept;
}

bool converted(lua_State* L, int results, const redisReply* r)
{
    if (!r)
        return is_failure(L, results, "redis reply is NULL");
    switch (r->type) {
    case REDIS_REPLY_STRING:
        return results == 1 && is_string(L, -1, r->str, r->len);
    case REDIS_REPLY_INTEGER:
        return results == 1 && is_number(L, -1, as_number(r->integer));
    case REDIS_REPLY_NIL:
        return results == 1 && lua_isnil(L, -1);
    case REDIS_REPLY_STATUS:
        return results == 1 && is_string(L, -1, r->str, strlen(r->str));
    case REDIS_REPLY_ERROR:
        return results == 2 && lua_isnil(L, -2) && is_string(L, -1, r->str, r->len);
#ifdef REDIS_REPLY_DOUBLE
    case REDIS_REPLY_DOUBLE:
        return results == 1 && is_number(L, -1, r->dval);
#endif
    case REDIS_REPLY_ARRAY:
        return results == 1 && is_table_of(L, r);
    default:
        return is_failure(L, results, "Unknown Redis reply type");
    }
}

// Pushes a messager on the peer (the module's messager.new).
void new_messager(lua_State* L)
{
    lua_pushcfunction(L, luaopen_bmsg);
    lua_call(L, 0, 1);
    lua_getfield(L, -1, "messager");
    lua_getfield(L, -1, "new");
    lua_pushstring(L, bmsg_fuzz::peer().socket().c_str());
    lua_pushinteger(L, 0);
    lua_pushinteger(L, 1);
    lua_call(L, 3, 1);
    lua_replace(L, 1);
    lua_settop(L, 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string reply(reinterpret_cast<const char*>(data), size);
    if (bmsg_fuzz::declares_huge_array(reply))
        return -1;
    const Parsed r = bmsg_fuzz::parse(reply);

    bmsg_fuzz::peer().answer(reply);
    lua_State* L = luaL_newstate();
    BMSG_FUZZ_CHECK(L != nullptr);
    luaL_openlibs(L);
    new_messager(L);
    lua_getfield(L, 1, "get");
    lua_pushvalue(L, 1);
    lua_pushstring(L, "k");
    const int status = lua_pcall(L, 2, LUA_MULTRET, 0);
    BMSG_FUZZ_CHECK(status == 0);
    BMSG_FUZZ_CHECK(converted(L, lua_gettop(L) - 1, r.get()));
    // Closing the state finalises the messager, which closes the connection.
    lua_close(L);
    bmsg_fuzz::peer().wait_idle();

    const auto sent = bmsg_fuzz::sent();
    BMSG_FUZZ_CHECK(sent.size() == 1 && sent[0] == std::vector<std::string>({"GET", "k"}));
    return 0;
}
