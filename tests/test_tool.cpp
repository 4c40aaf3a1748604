// The bmsg tool as a process against a private redis-server.
#include "acl.h"
#include "bmessager.h"
#include "child.h"
#include "picture.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <filesystem>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>

using Ran = bmsg_test::Captured;

static Ran tool(std::vector<std::string> args, const std::string& socket = "")
{
    if (!socket.empty())
        args.insert(args.begin(), {"-s", socket});
    bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args);
    return {c.wait(), c.out(), c.err()};
}

TEST(Tool, CommandsInOrder)
{
    bmsg_test::RedisServer server;
    // Hundreds of keys: more than 64 in one SCAN reply of watch.
    bmsg_test::redis_raw(server, "EVAL %s 0", "for i = 1, 300 do redis.call('SET', 'k' .. i, i) "
        "redis.call('LPUSH', 'BIOMETRIC_SAMPLE_m' .. i, 'x') end redis.call('LPUSH', "
        "'BIOMETRIC_SAMPLEm', 'x') redis.call('LPUSH', 'xBIOMETRIC_SAMPLE_m', 'x')");
    const struct { std::vector<std::string> args; int status; const char* out; } rows[] = {
        {{"ping"}, 0, "PONG\n"},          {{"set", "k", "v 1"}, 0, ""},
        {{"get", "k"}, 0, "v 1\n"},       {{"push", "cmd", "a b"}, 0, ""},
        {{"len", "BIO_CMD"}, 0, "1\n"},   {{"pop", "cmd"}, 0, "a b\n"},
        {{"pop", "cmd"}, 1, ""},          {{"publish", "X", "hi"}, 0, "0\n"},
        {{"push", "info", "x"}, 0, ""},   {{"len", "MAIN_BIOMETRIC_INFO"}, 0, "1\n"},
        {{"clear", "info"}, 0, ""},       {{"len", "info"}, 0, "0\n"},
        {{"push", "device", "d"}, 0, ""}, {{"len", "DEVICE_CMD"}, 0, "1\n"},
        {{"push", "resp", "r"}, 0, ""},   {{"len", "BIOMETRIC_RESP"}, 0, "1\n"},
        {{"get", "nosuch"}, 1, ""},       {{"get", "BIO_CMD"}, 1, ""},
        {{"get", "k300"}, 0, "300\n"},    {{"len", "BIOMETRIC_SAMPLE_m7"}, 0, "1\n"},
        {{"pop", "cmd", "-t", "1"}, 1, ""}, {{"sample", "recv", "m"}, 1, ""},
        {{}, 2, ""},                      {{"nosuch"}, 2, ""},
        {{"pop"}, 2, ""},                 {{"pop", "cmd", "-t", "x"}, 2, ""},
        {{"sample", "send", "m", "/no/such.png"}, 2, ""},
        {{"-p", "1", "ping"}, 2, ""},     {{"sample"}, 2, ""},
    };
    for (const auto& row : rows) {
        const Ran r = tool(row.args, server.socket());
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_EQ(r.out, row.out) << testing::PrintToString(row.args);
        EXPECT_TRUE(row.status != 1 || std::count(r.err.begin(), r.err.end(), '\n') == 1) << r.err;
    }
    EXPECT_TRUE(tool({"-s", std::filesystem::relative(server.socket()).string(), "ping"}).out == "PONG\n" && tool({"--version"}).out.rfind("bmsg 2.", 0) == 0);
    // Every sample list, and only those.
    const Ran watch = tool({"watch", "-n", "1"}, server.socket());
    EXPECT_NE(watch.out.find("MAIN_BIOMETRIC_INFO"), std::string::npos) << watch.out;
    const std::regex sample("SAMPLE");
    EXPECT_EQ(std::distance(std::sregex_iterator(watch.out.begin(), watch.out.end(), sample), {}), 300) << watch.out;

    // -t 0 waits for ever.
    bmsg_test::Child pop = bmsg_test::spawn_program(BMSG_TOOL, {"-s", server.socket(), "pop", "cmd", "-t", "0"});
    ASSERT_TRUE(bmsg_test::wait_until([&] { return bmsg_test::redis_raw(server, "INFO clients").find("blocked_clients:1") != std::string::npos; }));
    EXPECT_TRUE(tool({"push", "cmd", "late"}, server.socket()).status == 0 && pop.wait() == 0 && pop.out() == "late\n") << pop.out();
}

TEST(Tool, MissingServerFailsAtOnceWithOneLine)
{
    const std::string port = std::to_string(bmsg_test::free_port()), pgm = testing::TempDir() + bmsg_test::unique("bmsg-pgm");
    std::ofstream(pgm) << "P5 1 1 255 x";
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{{"-p", port, "ping"}, {"-p", port, "get", "k"},
             {"-p", port, "pop", "cmd", "-t", "50"}, {"-p", port, "subscribe", "X"}, {"-p", port, "watch"},
             {"-p", port, "sample", "recv", "m", "-t", "50"}, {"-p", port, "sample", "peek", "m"}, {"-p", port, "sample", "send", "m", pgm}})
        EXPECT_EQ([&] { const Ran r = tool(args); return std::to_string(r.status) + r.err; }(), "1bmsg: no server at 127.0.0.1:" + port + ": Connection refused\n");
    unlink(pgm.c_str());
}

TEST(Tool, SubscribeToSeveralChannels)
{
    bmsg_test::RedisServer server;
    bmsg_test::Child sub = bmsg_test::spawn_program(BMSG_TOOL, {"-s", server.socket(), "subscribe", "A", "B", "-n", "4"});
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "A", 1) && bmsg_test::wait_subscribers(server, "B", 1));
    for (const char* ab : {"Aone", "Btwo", "Ax\ny\\\x01\x7f\xc3\xa9\xff\t\xc3(\xe2\x82("})
        EXPECT_EQ(tool({"publish", std::string(ab, 1), ab + 1}, server.socket()).out, "1\n");
    const std::string escaped = " A x\\ny\\\\\\x01\\x7f\xc3\xa9\\xff\\t\\xc3(\\xe2\\x82(\n";  // bytes that are not printable UTF-8 escaped
    EXPECT_TRUE(bmsg_test::wait_until([&] { return sub.out().find(escaped) != std::string::npos; }) && (server.stop(), sub.wait()) == 1) << "lost before its fourth message";
    EXPECT_TRUE(std::regex_search(sub.out(), std::regex("[0-9:]{8}[.][0-9]{3} A one\n.* B two\n"))) << sub.out();
}

// Sent as capture and taken as consumer under the device's ACL.
TEST(Tool, PngRoundTripThroughASample)
{
    bmsg_test::AclServer acl;
    bMSG::Messager admin(acl.server->socket().c_str(), 0, 1, "admin", acl.passwords["admin"].c_str());
    const auto as = [&](const char* user, std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", acl.server->socket(), "-u", user, "--askpass"});
        return bmsg_test::spawn_program(BMSG_TOOL, args, acl.passwords[user] + "\n");
    };
    const std::string modality = bmsg_test::unique("tool"), in = acl.server->dir() + "/in.png", out = acl.server->dir() + "/out.png";
    const std::string list = "BIOMETRIC_SAMPLE_" + modality, segment = "/" + list;
    const auto waiting = [&] { return bmsg_test::wait_until([&] { return admin.list_size(list.c_str()) == 1; }); };
    for (int channels : {1, 3}) {
        picture::Picture sent{7, 5, channels, {}}, back;
        for (int i = 0; i < 7 * 5 * channels; ++i)
            sent.pixels.push_back(static_cast<unsigned char>(i * 37));
        std::string error;
        ASSERT_TRUE(picture::write_png(in, sent, error)) << error;
        // Grey: the sender waits for the taker, then removes its segment; colour: --keep leaves it.
        bmsg_test::Child send = as("capture", {"sample", "send", modality, in, channels == 3 ? "--keep" : "-t10"});
        ASSERT_TRUE(waiting());
        bmsg_test::Child peek = as("consumer", {"sample", "peek", modality, "-o", out});
        EXPECT_TRUE(peek.wait() == 0 && peek.out() == (channels == 1 ? "7 5 GRAY8 35\n" : "7 5 RGB24 105\n")) << peek.out() << peek.err();
        ASSERT_TRUE(picture::read_file(out, back, error)) << error;
        EXPECT_EQ(back.pixels, sent.pixels);
        EXPECT_EQ(as("consumer", {"sample", "recv", modality}).wait(), 0);
        EXPECT_EQ(send.wait(), 0) << send.err();
        EXPECT_EQ(shm_unlink(segment.c_str()), channels == 3 ? 0 : -1);
    }
    // Not taken in time, SIGTERM, a server gone: the sample is taken back (while there is a server) and its segment removed.
    for (int end : {0, SIGTERM, SIGKILL}) {
        bmsg_test::Child send = as("capture", {"sample", "send", modality, in, "-t", end ? "0" : "1"});  // signals: for ever
        ASSERT_TRUE(waiting());
        end == SIGTERM ? send.kill(SIGTERM) : end == SIGKILL ? acl.server->stop() : void();
        EXPECT_TRUE(send.wait() == 1 && (end == SIGKILL || admin.list_size(list.c_str()) == 0)) << end << send.err();
        EXPECT_EQ(shm_unlink(segment.c_str()), -1) << end;
    }
}

// One grey byte per pixel from the other formats; PGM and PPM files, scaled to 255 or cut short.
TEST(Tool, PicturesOfEveryFormatAndFromPgmOrPpm)
{
    using B = std::vector<unsigned char>;
    picture::Picture p;
    std::string why;
    const struct { BImage::ImageFormat f; B group; unsigned char grey; } formats[] = {{BImage::YUYV, {90, 1}, 90},
        {BImage::GRAY16, {1, 200}, 200}, {BImage::BGR24, {32, 14, 200}, 71}, {BImage::RGBA32, {200, 14, 32, 0}, 71}, {BImage::BGRA32, {32, 14, 200, 9}, 71}};
    for (const auto& row : formats) {
        BImage::Image image(2, 2, row.f, nullptr);
        for (int i = 0; i < image.count(); ++i)
            image.data[i] = row.group[i % row.group.size()];
        EXPECT_TRUE(picture::from_image(image, p) && p.pixels == B(4, row.grey)) << row.f;
    }
    using S = std::vector<std::string>;  // a recorded descriptor may name any format
    EXPECT_EQ((S{picture::format_name(0), picture::format_name(9), picture::format_name(10), picture::format_name(-1)}), (S{"GRAY8", "GRAY16", "format 10", "format -1"}));
    const std::string file = testing::TempDir() + bmsg_test::unique("bmsg-pnm");
    for (const auto& [bytes, pixels] : std::vector<std::pair<std::string, B>>{{"P5\n2 1\n127\n\x7f\x3f", {255, 126}},
             {"P6 1 1 255 \x01\x02\x03", {1, 2, 3}}, {"P5 2 2 255 \x01", {}}, {"P5 1 1 65535 \x01\x02", {}}, {"P5 1 0 255 ", {}}}) {
        std::ofstream(file, std::ios::binary) << bytes;
        EXPECT_TRUE(picture::read_file(file, p, why) == !pixels.empty() && (pixels.empty() || p.pixels == pixels)) << bytes;
    }
    unlink(file.c_str());
}

// bmsg(1) is written from the parser: each command --help lists has its part of the page, naming each option it lists.
TEST(Tool, ManualPageHasEveryCommandAndOption)
{
    std::string page = tool({"--man-page"}).out;
    page.erase(std::remove(page.begin(), page.end(), '\\'), page.end());  // \- as -
    const auto part = [&](const std::string& heading) {  // to the next heading
        const size_t at = page.find(heading);
        return at == std::string::npos ? std::string() : page.substr(at, page.find("\n.S", at + 1) - at);
    };
    EXPECT_TRUE(part("\n.SH ENVIRONMENT\n").find("BMSG_PASSWORD") != std::string::npos && !part("\n.SH EXIT STATUS\n").empty()) << page;
    const std::regex word("[a-z]+"), command("\n  ([a-z]+) "), option("[ ,](--?[a-z][a-z-]*)");
    std::vector<std::string> commands{""};
    int options = 0;
    for (size_t i = 0; i < commands.size(); ++i) {
        std::vector<std::string> args(std::sregex_token_iterator(commands[i].begin(), commands[i].end(), word), {});
        args.push_back("--help");
        const std::string help = tool(args).out, subs = help.substr(std::min(help.find("\nSubcommands:"), help.size()));
        const std::string own = part(commands[i].empty() ? "\n.SH OPTIONS\n" : "\n.SS " + commands[i] + "\n");
        for (std::sregex_iterator o(help.begin() + help.find("\nOptions:"), help.end() - subs.size(), option), end; o != end; ++o, ++options)
            EXPECT_TRUE((*o)[1] == "-h" || (*o)[1] == "--help" || own.find("fB" + (*o)[1].str() + "fR") != std::string::npos) << commands[i] << (*o)[1];
        for (std::sregex_iterator c(subs.begin(), subs.end(), command), end; c != end; ++c)
            commands.push_back(commands[i] + (commands[i].empty() ? "" : " ") + (*c)[1].str());
    }
    EXPECT_TRUE(std::count(commands.begin(), commands.end(), "sample send") == 1 && options > 30) << options;
}
