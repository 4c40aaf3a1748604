// A Lua interpreter for the builds that cannot run the tests in Debian's
// luajit: sanitizer builds, with the bmsg module built in (package.preload)
// since an instrumented library cannot be loaded into the uninstrumented
// luajit binary (BMSG_LUA_BUILTIN), and cross builds, which load bmsg.so
// through package.cpath as luajit does.
//   lua_host <script> [args...]     (arg[0] is the script, as with luajit)
// Exits with 1 when the script raises an error, after closing the state.
#include <lua.hpp>

#include <cstdio>

#ifdef BMSG_LUA_BUILTIN
extern "C" int luaopen_bmsg(lua_State* L);

static void preload_bmsg(lua_State* L)
{
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "preload");
    lua_pushcfunction(L, luaopen_bmsg);
    lua_setfield(L, -2, "bmsg");
    lua_pop(L, 2);
}
#endif

static void set_args(lua_State* L, int argc, char** argv)
{
    lua_createtable(L, argc, 1);
    for (int i = 1; i < argc; ++i) {
        lua_pushstring(L, argv[i]);
        lua_rawseti(L, -2, i - 1);
    }
    lua_setglobal(L, "arg");
}

// Runs the script with a traceback on error; false after printing it.
static bool run(lua_State* L, const char* script)
{
    lua_getglobal(L, "debug");
    lua_getfield(L, -1, "traceback");
    lua_remove(L, -2);
    if (luaL_loadfile(L, script) != 0 || lua_pcall(L, 0, 0, -2) != 0) {
        fprintf(stderr, "lua_host: %s\n", lua_tostring(L, -1));
        return false;
    }
    return true;
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s script [args...]\n", argv[0]);
        return 2;
    }
    lua_State* L = luaL_newstate();
    if (!L)
        return 1;
    luaL_openlibs(L);
#ifdef BMSG_LUA_BUILTIN
    preload_bmsg(L);
#endif
    set_args(L, argc, argv);
    const bool ok = run(L, argv[1]);
    lua_close(L);
    return ok ? 0 : 1;
}
