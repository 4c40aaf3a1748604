#include "redis_server.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

using bmsg_test::RedisServer;
using bmsg_test::redis_raw;

namespace {

struct Result {
    int status;
    std::string out;
};

Result cli(const RedisServer& server, const std::string& args)
{
    const std::string cmd =
        std::string(BMSG_CLI) + " -a " + server.socket() + " " + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    int status = pclose(p);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

} // namespace

TEST(Cli, LooksAtAndPokesTheBus)
{
    RedisServer server;
    EXPECT_EQ(cli(server, "push BIO_CMD 'capture 1'").status, 0);
    EXPECT_EQ(cli(server, "push BIO_CMD second").status, 0);
    EXPECT_EQ(cli(server, "status").out,
              "DEVICE_CMD           0\nBIO_CMD              2\n"
              "MAIN_BIOMETRIC_INFO  0\nBIOMETRIC_RESP       0\n");
    EXPECT_EQ(cli(server, "pop BIO_CMD").out, "capture 1\n");
    EXPECT_EQ(cli(server, "size BIO_CMD").out, "1\n");
    EXPECT_EQ(cli(server, "clear BIO_CMD").out, "1\n");
    EXPECT_EQ(cli(server, "pop BIO_CMD").out, "\n");

    EXPECT_EQ(cli(server, "set mode 'night shift'").status, 0);
    EXPECT_EQ(redis_raw(server, "GET mode"), "night shift");
    EXPECT_EQ(cli(server, "get mode").out, "night shift\n");
    EXPECT_EQ(cli(server, "publish SYSTEM_STATUS up").out, "0\n");

    EXPECT_EQ(cli(server, "frobnicate").status, 2);
    EXPECT_EQ(cli(server, "get").status, 2);
    server.stop();
    EXPECT_EQ(cli(server, "status").status, 1);
}
