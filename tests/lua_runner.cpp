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

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int limit_ms = 100000;

pid_t start(char** argv)
{
    std::vector<char*> args{argv[1], argv[3]};
    for (char** a = argv + 4; *a; ++a)
        args.push_back(*a);
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execv(args[0], args.data());
        perror(args[0]);
        _exit(127);
    }
    return pid;
}

int wait_for(pid_t pid)
{
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) != pid; waited += 50) {
        if (waited >= limit_ms) {
            fprintf(stderr, "lua_runner: script still running after %d ms, killed\n", limit_ms);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return 1;
        }
        usleep(50000);
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    fprintf(stderr, "lua_runner: script ended by signal %d\n", WTERMSIG(status));
    return 1;
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
    setenv("BMSG_TEST_PORT", std::to_string(server.port()).c_str(), 1);
    setenv("BMSG_TEST_SOCKET", server.socket().c_str(), 1);
    setenv("BMSG_TEST_REDIS_PID", std::to_string(server.pid()).c_str(), 1);
    setenv("BMSG_TEST_DEAD_PORT", std::to_string(bmsg_test::free_port()).c_str(), 1);
    setenv("BMSG_LUA", argv[1], 1);
    setenv("LUA_CPATH", (std::string(argv[2]) + "/?.so").c_str(), 1);
    setenv("LUA_PATH", (script_dir + "?.lua").c_str(), 1);
    fflush(stdout);
    fflush(stderr);
    return wait_for(start(argv));
}
