// The bmsg tool as a process against a private redis-server.
#include "child.h"
#include "picture.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>


using bmsg_test::RedisServer;

namespace {

using Ran = bmsg_test::Captured;

Ran tool(std::vector<std::string> args, const std::string& socket = "")
{
    if (!socket.empty())
        args.insert(args.begin(), {"-s", socket});
    bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args);
    const int status = c.wait();
    return {status, c.out(), c.err()};
}

} // namespace

TEST(Tool, CommandsInOrder)
{
    RedisServer server;
    const struct { std::vector<std::string> args; int status; const char* out; } rows[] = {
        {{"ping"}, 0, "PONG\n"},          {{"set", "k", "v 1"}, 0, ""},
        {{"get", "k"}, 0, "v 1\n"},       {{"push", "cmd", "a b"}, 0, ""},
        {{"len", "BIO_CMD"}, 0, "1\n"},   {{"pop", "cmd"}, 0, "a b\n"},
        {{"pop", "cmd"}, 1, ""},          {{"publish", "X", "hi"}, 0, "0\n"},
        {{"push", "info", "x"}, 0, ""},   {{"clear", "info"}, 0, ""},
        {{"len", "info"}, 0, "0\n"},      {{}, 2, ""},
        {{"nosuch"}, 2, ""},              {{"pop"}, 2, ""},
        {{"pop", "cmd", "-t", "x"}, 2, ""}, {{"sample", "send", "m", "/no/such.png"}, 2, ""},
        {{"-p", "1", "ping"}, 2, ""},     {{"sample"}, 2, ""},
    };
    for (const auto& row : rows) {
        const Ran r = tool(row.args, server.socket());
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_EQ(r.out, row.out) << testing::PrintToString(row.args);
    }
    const Ran watch = tool({"watch", "-n", "1"}, server.socket());
    EXPECT_NE(watch.out.find("MAIN_BIOMETRIC_INFO"), std::string::npos) << watch.out;
}

TEST(Tool, MissingServerFailsAtOnceWithOneLine)
{
    const std::string port = std::to_string(bmsg_test::free_port());
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"ping"}, {"get", "k"}, {"pop", "cmd", "-t", "50"}, {"subscribe", "X"},
             {"watch"}, {"sample", "recv", "m", "-t", "50"}, {"sample", "peek", "m"}}) {
        args.insert(args.begin(), {"-p", port});
        const Ran r = tool(args);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_EQ(r.err, "bmsg: no server at 127.0.0.1:" + port + ": Connection refused\n");
    }
}

TEST(Tool, SubscribeToSeveralChannels)
{
    RedisServer server;
    bmsg_test::Child sub = bmsg_test::spawn_program(BMSG_TOOL, {"-s", server.socket(), "subscribe", "A", "B", "-n", "2"});
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "A", 1) && bmsg_test::wait_subscribers(server, "B", 1));
    EXPECT_EQ(tool({"publish", "A", "one"}, server.socket()).out, "1\n");
    EXPECT_EQ(tool({"publish", "B", "two"}, server.socket()).out, "1\n");
    EXPECT_EQ(sub.wait(), 0);
    EXPECT_NE(sub.out().find(" A one\n"), std::string::npos) << sub.out();
    EXPECT_NE(sub.out().find(" B two\n"), std::string::npos) << sub.out();
}

TEST(Tool, PngRoundTripThroughASample)
{
    RedisServer server;
    const std::string modality = "tool" + std::to_string(getpid()), in = server.dir() + "/in.png",
                      out = server.dir() + "/out.png";
    for (int channels : {1, 3}) {
        picture::Picture sent{7, 5, channels, {}}, back;
        for (int i = 0; i < 7 * 5 * channels; ++i)
            sent.pixels.push_back(static_cast<unsigned char>(i * 37));
        std::string error;
        ASSERT_TRUE(picture::write_png(in, sent, error)) << error;
        ASSERT_EQ(tool({"sample", "send", modality, in}, server.socket()).status, 0);
        const Ran peek = tool({"sample", "peek", modality, "-o", out}, server.socket());
        EXPECT_EQ(peek.out, channels == 1 ? "7 5 GRAY8 35\n" : "7 5 RGB24 105\n");
        ASSERT_TRUE(picture::read_file(out, back, error)) << error;
        EXPECT_EQ(back.pixels, sent.pixels);
        EXPECT_EQ(tool({"sample", "recv", modality, "-t", "1"}, server.socket()).status, 0);
    }
    shm_unlink(("/BIOMETRIC_SAMPLE_" + modality).c_str());
}
