// A Lua interpreter for the builds that cannot run the tests in Debian's
// luajit: sanitizer builds, with the bmsg module built in (an instrumented
// library cannot be loaded into the uninstrumented luajit), and cross builds,
// which load bmsg.so through package.cpath as luajit does.
//   lua_host [script [args...]]    (arg[0] is the script; none: stdin)
// Exits with 1, after closing the state, when the script raises an error.
#include <lua.hpp>

#include <cstdio>

extern "C" int luaopen_bmsg(lua_State* L);

int main(int argc, char** argv)
{
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
#ifdef BMSG_LUA_BUILTIN
    luaL_findtable(L, LUA_REGISTRYINDEX, "_PRELOAD", 1);
    lua_pushcfunction(L, luaopen_bmsg);
    lua_setfield(L, -2, "bmsg");
#endif
    lua_createtable(L, argc, 0);
    for (int i = 1; i < argc; ++i) {
        lua_pushstring(L, argv[i]);
        lua_rawseti(L, -2, i - 1);
    }
    lua_setglobal(L, "arg");
    const bool ok = luaL_dofile(L, argc > 1 ? argv[1] : nullptr) == 0;
    if (!ok)
        fprintf(stderr, "lua_host: %s\n", lua_tostring(L, -1));
    lua_close(L);
    return ok ? 0 : 1;
}
