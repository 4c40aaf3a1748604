// lua_host [script [args...]]: the Lua of the sanitizer builds (bmsg built in:
// an instrumented library cannot be loaded into Debian's luajit) and of cross
// builds (bmsg.so from package.cpath). 1 when the script raises an error.
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
    for (int i = 0; i < argc; ++i) {  // arg[-1] is the interpreter, as in luajit
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
