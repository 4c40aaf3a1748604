// Runs one Lua test script against a private redis-server:
//   lua_runner <interpreter> <module-dir> <script> [args...]
// The script finds the server through BMSG_TEST_PORT and BMSG_TEST_SOCKET
// (and may kill it through BMSG_TEST_REDIS_PID: the runner reaps it),
// a port nobody listens on through BMSG_TEST_DEAD_PORT,
// the interpreter (for child runs) through BMSG_LUA, the bmsg module through
// LUA_CPATH (<module-dir>/?.so) and the scripts' helpers through LUA_PATH.
// Exits with the script's status; a script still running after the time
// limit is killed and the run fails.
#include "redis_server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int limit_ms = 100000;

// Under an emulator the interpreter is our lua_host: scripts start child runs
// through BMSG_LUA, so it names a wrapper that puts the emulator in front.
std::string interpreter(const std::string& given, const std::string& dir)
{
    const char* emulator = getenv("BMSG_TEST_EMULATOR");
    if (!emulator || !*emulator)
        return given;
    const std::string wrapper = dir + "/lua";
    std::ofstream(wrapper) << "#!/bin/sh\nexec " << emulator << " '" << given << "' \"$@\"\n";
    chmod(wrapper.c_str(), 0700);
    return wrapper;
}

int wait_for(bmsg_test::Child& script)
{
    for (int waited = 0; !script.ended(); waited += 50) {
        if (waited >= limit_ms) {
            fprintf(stderr, "lua_runner: script still running after %d ms, killed\n", limit_ms);
            return 1;
        }
        usleep(50000);
    }
    fputs(script.out().c_str(), stdout);
    fputs(script.err().c_str(), stderr);
    const int rc = script.wait();
    if (rc > 128) {
        fprintf(stderr, "lua_runner: script ended by signal %d\n", rc - 128);
        return 1;
    }
    return rc;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s interpreter module-dir script [args...]\n", argv[0]);
        return 2;
    }
    bmsg_test::RedisServer server;
    const std::string script = argv[3];
    const std::string script_dir = script.substr(0, script.rfind('/') + 1);
    const std::string lua = interpreter(argv[1], server.dir());
    setenv("BMSG_TEST_PORT", std::to_string(server.port()).c_str(), 1);
    setenv("BMSG_TEST_SOCKET", server.socket().c_str(), 1);
    setenv("BMSG_TEST_REDIS_PID", std::to_string(server.pid()).c_str(), 1);
    setenv("BMSG_TEST_DEAD_PORT", std::to_string(bmsg_test::free_port()).c_str(), 1);
    setenv("BMSG_LUA", lua.c_str(), 1);
    setenv("LUA_CPATH", (std::string(argv[2]) + "/?.so").c_str(), 1);
    setenv("LUA_PATH", (script_dir + "?.lua").c_str(), 1);
    std::vector<std::string> args{script};
    for (char** a = argv + 4; *a; ++a)
        args.push_back(*a);
    bmsg_test::Child run = bmsg_test::spawn_native(lua, args);
    const int rc = wait_for(run);
    if (lua != argv[1])
        unlink(lua.c_str());
    return rc;
}
