// lua_runner <interpreter> <module-dir> <script> [args...]: runs the script,
// started as a program of ours, against a private redis-server (BMSG_TEST_*),
// the module in LUA_CPATH; its status, or 1 when killed after 100 s.
#include "acl.h"
#include "redis_server.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 4)
        return 2;
    const auto own = getenv("BMSG_TEST_ACL") ? std::move(bmsg_test::AclServer().server) : std::make_unique<bmsg_test::RedisServer>();
    const bmsg_test::RedisServer& server = *own;
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
    fputs(run.out().c_str(), stdout), fputs(run.err().c_str(), stderr);
    const int rc = run.ended() ? run.wait() : 999;  // still running after 100 s: killed
    if (rc > 128)
        fprintf(stderr, "lua_runner: script killed or ended by a signal (%d)\n", rc);
    return rc > 128 ? 1 : rc;
}
