// Runs one Lua test script against a private redis-server:
//   lua_runner <interpreter> <module-dir> <script> [args...]
// The script finds the server through BMSG_TEST_PORT, BMSG_TEST_SOCKET and
// BMSG_TEST_REDIS_PID (it may kill it: the runner reaps it), a port nobody
// listens on through BMSG_TEST_DEAD_PORT, the bmsg module through LUA_CPATH
// and its helpers through LUA_PATH. The interpreter is started like a
// program of ours (behind BMSG_TEST_EMULATOR in cross builds, where it is
// lua_host). Exits with the script's status, 1 when it is still running
// after 100 s (it is killed) or ended by a signal.
#include "redis_server.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 4)
        return 2;
    bmsg_test::RedisServer server;
    const std::string script = argv[3];
    setenv("BMSG_TEST_PORT", std::to_string(server.port()).c_str(), 1);
    setenv("BMSG_TEST_SOCKET", server.socket().c_str(), 1);
    setenv("BMSG_TEST_REDIS_PID", std::to_string(server.pid()).c_str(), 1);
    setenv("BMSG_TEST_DEAD_PORT", std::to_string(bmsg_test::free_port()).c_str(), 1);
    setenv("LUA_CPATH", (std::string(argv[2]) + "/?.so").c_str(), 1);
    setenv("LUA_PATH", (script.substr(0, script.rfind('/') + 1) + "?.lua").c_str(), 1);
    bmsg_test::Child run = bmsg_test::spawn_program(argv[1], {argv + 3, argv + argc});
    for (int waited = 0; !run.ended() && waited < 2000; ++waited)
        usleep(50000);
    fputs(run.out().c_str(), stdout);
    fputs(run.err().c_str(), stderr);
    const int rc = run.ended() ? run.wait() : 999;  // still running after 100 s: killed
    if (rc > 128)
        fprintf(stderr, "lua_runner: script killed or ended by a signal (%d)\n", rc);
    return rc > 128 ? 1 : rc;
}
