// bmsg record, info, export and play as processes against private servers.
#include "bmessager.h"
#include "bshmem.h"
#include "child.h"
#include "picture.h"
#include "redis_server.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <sstream>

using bmsg_test::RedisServer;

namespace {

std::string every_byte = [] { std::string b(256, 0); std::iota(b.begin(), b.end(), 0); return b; }();
// Well-formed UTF-8 at its ranges' edges beside ill-formed neighbours (overlong, surrogate, past U+10FFFF); its JSON.
const char* utf8_edges = "\xc2\x80 \xc1\xbf \xe0\xa0\x80 \xe0\x9f\xbf \xed\x9f\xbf \xed\xa0\x80 \xf0\x90\x80\x80 \xf0\x8f\xbf\xbf \xf4\x8f\xbf\xbf \xf4\x90\x80\x80";
const char* utf8_json = "\"\xc2\x80 \\udcc1\\udcbf \xe0\xa0\x80 \\udce0\\udc9f\\udcbf \xed\x9f\xbf \\udced\\udca0\\udc80 \xf0\x90\x80\x80 \\udcf0\\udc8f\\udcbf\\udcbf \xf4\x8f\xbf\xbf \\udcf4\\udc90\\udc80\\udc80\"";

bmsg_test::Captured tool(const std::vector<std::string>& args)
{
    bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args);
    return {c.wait(), c.out(), c.err()};
}

// A recorder, returned once the server counts it as one more monitor.
bmsg_test::Child recorder(const RedisServer& server, std::vector<std::string> args)
{
    const auto monitors = [&] { std::istringstream l(bmsg_test::redis_raw(server, "CLIENT LIST")); std::string c; int n = 0; while (l >> c) n += c == "cmd=monitor"; return n; };
    const int before = monitors();
    args.insert(args.begin(), {"-s", server.socket(), "record"});
    bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args);
    EXPECT_TRUE(bmsg_test::wait_until([&] { return monitors() > before; }));
    return c;
}

// The count `bmsg info` gives for a kind and a list, channel or key; -1 when absent.
long long counted(const std::string& file, const std::string& kind, const std::string& name)
{
    std::istringstream in(tool({"info", file}).out);
    std::string line, k, n;
    for (long long count; std::getline(in, line);)
        if (std::istringstream(line) >> k >> n >> count && k == kind && n == name)
            return count;
    return -1;
}

std::string shell(const std::string& command)  // its output (64 KiB at most)
{
    std::string out(1 << 16, '\0');
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(command.c_str(), "r"), pclose);
    return out.substr(0, p ? fread(out.data(), 1, out.size(), p.get()) : 0);
}

// The device's kinds of traffic; the sample's segment stays (owner off) for the recorder to read.
void exchange(const RedisServer& server, const std::string& modality, BImage::Image& image)
{
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    m.bio_cmd_send("%s", "capture:1"), m.device_cmd_send("%s", "reset"), m.bio_info_send("%s", utf8_edges);
    m.list_send(m.bio_cmd, "%b", every_byte.data(), every_byte.size()), m.bio_resp_send("%s", "captured 1");
    m.system_publish("%s", "capturing"), m.publish(m.system_status, "%s", "idle"), m.set("exposure", 2.5f);
    ASSERT_EQ(m.bio_sample_send(modality.c_str(), &image), 0);
    m.segments[modality]->owner = false;
}

// What a consumer takes off the server: every named list, the setting and the sample's pixels.
std::string consume(const RedisServer& server, const std::string& modality)
{
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    std::string got;
    char buffer[512] = {};
    for (const char* key : {m.device_cmd, m.bio_cmd, m.bio_info, m.bio_resp})
        for (int n; (n = m.list_recv(key, buffer, sizeof buffer, 0, nullptr, 0)) > 0;)
            got += std::string(key) + ": " + std::string(buffer, n) + "\n";
    memset(buffer, 0, sizeof buffer);
    m.get("exposure", buffer, sizeof buffer);
    std::unique_ptr<BImage::Image> s(m.bio_sample_recv_any({modality.c_str()}, 1, buffer, sizeof buffer));
    return got + "exposure " + buffer + "\n" + (s ? std::string(reinterpret_cast<char*>(s->data), s->count()) : "no sample");
}

} // namespace

TEST(Record, ExchangeRecordedExportedAndPlayedBack)
{
    RedisServer plain, recorded, fresh;
    const std::string modality = bmsg_test::unique("rec"), file = recorded.dir() + "/rec.db";
    BImage::Image image(64, 48, BImage::GRAY8, nullptr);
    for (int i = 0; i < image.count(); ++i) image.data[i] = static_cast<unsigned char>(i * 7);
    exchange(plain, modality, image);
    const std::string without = consume(plain, modality);
    EXPECT_NE(without.find("BIO_CMD: " + every_byte), std::string::npos);

    // Sealed too, to a key made for it (the secret one private, never overwritten); another key opens nothing.
    const std::string sealed = recorded.dir() + "/sealed.db", key = recorded.dir() + "/k", other = recorded.dir() + "/other";
    struct stat secret = {};
    ASSERT_TRUE(tool({"keygen", "-o", key}).status == 0 && tool({"keygen", "-o", other}).status == 0 && tool({"keygen", "-o", key}).status == 1);
    EXPECT_TRUE(!stat((key + ".key").c_str(), &secret) && (secret.st_mode & 0777) == 0600);
    bmsg_test::Child rec = recorder(recorded, {"-o", file, "--samples"}), seal = recorder(recorded, {"-o", sealed, "--samples", "--seal-to", key + ".pub"});
    exchange(recorded, modality, image);
    ASSERT_TRUE(bmsg_test::wait_until([&] { return counted(file, "sample", "BIOMETRIC_SAMPLE_" + modality) == 1 && counted(sealed, "sample", "BIOMETRIC_SAMPLE_" + modality) == 1; }));
    EXPECT_EQ(consume(recorded, modality), without);  // the recorder took nothing
    EXPECT_EQ((rec.kill(SIGINT), rec.wait()), 0) << rec.err();
    EXPECT_EQ((seal.kill(SIGINT), seal.wait()), 0) << seal.err();
    std::stringstream raw;  // no payload sent and no run of pixels in the sealed file's bytes
    raw << std::ifstream(sealed).rdbuf() << std::ifstream(sealed + "-wal").rdbuf();
    for (const std::string& sent : {every_byte, std::string(utf8_edges), std::string("capture:1"), std::string("reset"), std::string("captured 1"), std::string("capturing"),
             std::string("idle"), std::string(reinterpret_cast<const char*>(image.format_header()), 32), std::string(reinterpret_cast<char*>(image.data) + 1000, 32)})
        EXPECT_EQ(raw.str().find(sent), std::string::npos) << sent;
    const struct { const char* kind; const char* name; long long count; } rows[] = {{"push", "BIO_CMD", 2}, {"push", "DEVICE_CMD", 1},
        {"push", "MAIN_BIOMETRIC_INFO", 1}, {"push", "BIOMETRIC_RESP", 1}, {"publish", "SYSTEM_STATUS", 2}, {"set", "exposure", 1}};
    for (const auto& row : rows)
        EXPECT_TRUE(counted(file, row.kind, row.name) == row.count && counted(sealed, row.kind, row.name) == row.count) << row.kind << " " << row.name;
    for (const std::string& f : {file, sealed}) {  // the sealed one without its key
        const std::string info = tool({"info", f}).out;
        EXPECT_TRUE(info.find(" from 2") != info.npos && info.find("pixels recorded") != info.npos && info.find("64x48 GRAY8 1 samples, 0 missed") != info.npos) << info;
    }

    // Into directories open to others with links at the names to write: made private, the links replaced, not followed.
    const std::string dir = recorded.dir() + "/export", victim = recorded.dir() + "/victim", png_name = dir + "/samples/000009-" + modality + ".png";
    std::ofstream(victim) << "kept";
    ASSERT_TRUE(!mkdir(dir.c_str(), 0755) && !mkdir((dir + "/samples").c_str(), 0755) && !symlink(victim.c_str(), (dir + "/events.jsonl").c_str()) && !symlink(victim.c_str(), png_name.c_str()));
    picture::Picture png; std::string error; struct stat st = {}, samples = {};
    ASSERT_TRUE(tool({"export", file, "-o", dir}).status == 0 && picture::read_file(png_name, png, error)) << error;
    EXPECT_TRUE(std::equal(png.pixels.begin(), png.pixels.end(), image.data) && png.pixels.size() == 64 * 48u && !lstat((dir + "/events.jsonl").c_str(), &st) &&
                (st.st_mode & 0170777) == (S_IFREG | 0600) && !stat((dir + "/samples").c_str(), &samples) && (samples.st_mode & 0777) == 0700);
    std::stringstream jsonl, kept;  // controls and a quote escaped, bytes that are not UTF-8 as lone surrogates
    jsonl << std::ifstream(dir + "/events.jsonl").rdbuf(), kept << std::ifstream(victim).rdbuf();
    EXPECT_EQ(kept.str(), "kept");
    for (const char* text : {"\\u001f !\\\"#", "~\\u007f\\udc80\\udc81", utf8_json})
        EXPECT_NE(jsonl.str().find(text), std::string::npos) << text;
    // The sealed one exports the same with its key only; a byte changed or a field moved is refused, naming its event.
    std::stringstream opened;
    EXPECT_TRUE(tool({"export", sealed, "-o", dir + "2"}).status == 1 && tool({"export", sealed, "-o", dir + "2", "--key", other + ".key"}).status == 1);
    ASSERT_EQ(tool({"export", sealed, "-o", dir + "2", "--key", key + ".key"}).status, 0);
    opened << std::ifstream(dir + "2/events.jsonl").rdbuf();
    EXPECT_EQ(opened.str(), jsonl.str());
    for (const auto& edit : {std::pair<std::string, std::string>{"UPDATE samples SET pixels = substr(pixels, 1, 99) || iif(substr(pixels, 100, 1) = X'00', X'01', X'00') || substr(pixels, 101)", "event 9:"},
             {"UPDATE events SET (time_us, kind, command, name, payload) = (SELECT time_us, kind, command, name, payload FROM events WHERE id = 1) WHERE id = 2", "event 2:"},
             {"UPDATE samples SET pixels = (SELECT payload FROM events WHERE id = 9)", "event 9:"}}) {
        ASSERT_EQ(std::system(("rm -f " + dir + ".db && sqlite3 " + sealed + " \"VACUUM INTO '" + dir + ".db'\" && sqlite3 " + dir + ".db \"" + edit.first + "\"").c_str()), 0);
        const auto refused = tool({"export", dir + ".db", "-o", dir + "2", "--key", key + ".key"});
        EXPECT_TRUE(refused.status == 1 && refused.err.find(edit.second) != std::string::npos) << refused.err;
    }

    // Played into a fresh server: the same to its consumer (pixels through the player's segment).
    shm_unlink(("/BIOMETRIC_SAMPLE_" + modality).c_str());
    bmsg_test::Child sub = bmsg_test::spawn_program(BMSG_TOOL, {"-s", fresh.socket(), "subscribe", "SYSTEM_STATUS", "-n", "2"});
    ASSERT_TRUE(bmsg_test::wait_subscribers(fresh, "SYSTEM_STATUS", 1));
    const auto played = tool({"-s", fresh.socket(), "play", sealed, "--key", key + ".key", "--rate", "0"});
    EXPECT_EQ(std::to_string(played.status) + " " + played.out, "0 played 9 events\n") << played.err;
    EXPECT_EQ(consume(fresh, modality), without);
    EXPECT_TRUE(sub.wait() == 0 && sub.out().find("SYSTEM_STATUS capturing\n") != std::string::npos) << sub.out();
    bmsg_test::Child looping = bmsg_test::spawn_program(BMSG_TOOL, {"-s", fresh.socket(), "play", file, "--rate", "0", "--loop", "--only", "BIO_CMD"});
    ASSERT_TRUE(bmsg_test::wait_until([&] { return std::stoi(bmsg_test::redis_raw(fresh, "LLEN BIO_CMD")) >= 4; }));
    EXPECT_EQ((looping.kill(SIGINT), looping.wait()), 0) << "Ctrl-C ends a loop";
    shm_unlink(("/BIOMETRIC_SAMPLE_" + modality).c_str());

    // Samples that grow: the player's segment grows with them (a sender each: its segment goes with it).
    const std::string grows = plain.dir() + "/grows.db", grow = bmsg_test::unique("grow");
    bmsg_test::Child growing = recorder(plain, {"-o", grows, "--samples"});
    for (int n : {1, 2})
        ASSERT_TRUE(bMSG::Messager(plain.socket().c_str(), 0, 1).bio_sample_send(grow.c_str(), std::make_unique<BImage::Image>(5 * n, 5 * n, BImage::GRAY8, nullptr).get()) == 0 &&
                    bmsg_test::wait_until([&] { return counted(grows, "sample", "BIOMETRIC_SAMPLE_" + grow) == n; }));
    EXPECT_EQ((growing.kill(SIGINT), growing.wait()), 0);
    EXPECT_EQ(tool({"-s", fresh.socket(), "play", grows, "--rate", "0"}).status, 0);
    shm_unlink(("/BIOMETRIC_SAMPLE_" + grow).c_str());
}

TEST(Record, KilledRecorderLeavesAPrivateFileThatOpens)
{
    RedisServer server;
    const std::string file = server.dir() + "/rec.db", key = "BIOMETRIC_SAMPLE_" + bmsg_test::unique("none");
    const mode_t umask_was = umask(0277);  // the recorder's file stays writable to it whatever the umask
    bmsg_test::Child rec = recorder(server, {"-o", file, "SYSTEM_*"});  // named and sample lists, and those that match
    bmsg_test::redis_raw(server, "LPUSH BIO_CMD x0 x1"), bmsg_test::redis_raw(server, "RPUSHX BIO_CMD x2"), bmsg_test::redis_raw(server, "LPUSH other y");
    bmsg_test::redis_raw(server, "LPUSH SYSTEM_LOG z"), bmsg_test::redis_raw(server, "RPUSH %s not-a-descriptor", key.c_str());
    ASSERT_TRUE(bmsg_test::wait_until([&] { return counted(file, "sample", key) == 1; }));
    rec.kill(SIGKILL), rec.wait();
    struct stat db = {}, wal = {};
    EXPECT_TRUE(!stat(file.c_str(), &db) && !stat((file + "-wal").c_str(), &wal) && (db.st_mode & 0777) == 0600 && (wal.st_mode & 0777) == 0600);
    EXPECT_TRUE(counted(file, "push", "BIO_CMD") == 3 && counted(file, "push", "SYSTEM_LOG") == 1 && counted(file, "push", "other") == -1);
    EXPECT_NE(tool({"info", file}).out.find("cut short"), std::string::npos);
    umask(umask_was);
    std::ofstream(server.dir() + "/text.db") << "not a database\n";
    bmsg_test::redis_raw(server, "SET SYSTEM_LOG string");  // its push is refused when played
    // Edited to run FLUSHALL in place of that push: refused whole, before the pushes ahead of it are sent.
    const std::string evil = server.dir() + "/evil.db", edit = "UPDATE events SET command = 'EVAL', name = 'redis.call(''FLUSHALL'')', payload = '0' WHERE name = 'SYSTEM_LOG'";
    ASSERT_EQ(std::system(("sqlite3 " + file + " \"VACUUM INTO '" + evil + "'\" && sqlite3 " + evil + " \"" + edit + "\"").c_str()), 0);
    const auto refused = tool({"-s", server.socket(), "play", evil, "--rate", "0"});
    EXPECT_TRUE(refused.status == 1 && refused.err.find("event 4") != std::string::npos && bmsg_test::redis_raw(server, "LLEN BIO_CMD") == "3" &&
                bmsg_test::redis_raw(server, "GET SYSTEM_LOG") == "string") << refused.err;

    // Exit status 2 on bad usage, 1 when the work fails (one line on stderr).
    const std::string& s = server.socket();
    const struct { std::vector<std::string> args; int status; } rows[] = {
        {{"record"}, 2}, {{"-s", s, "record", "-o", file}, 1}, {{"info"}, 2}, {{"info", file + "x"}, 1},
        {{"info", server.dir() + "/text.db"}, 1}, {{"info", evil}, 1}, {{"export", evil, "-o", server.dir() + "/out"}, 1}, {{"export", file}, 2}, {{"play", file, "--rate", "-1"}, 2},
        {{"-s", s, "play", file, "--rate", "0"}, 1},  // the sample has no pixels
        {{"-s", s, "play", file, "--rate", "0", "--only", "BIO_*"}, 0}, {{"-s", s, "play", file, "--rate", "0", "--only", "SYSTEM_*"}, 1}};
    for (const auto& row : rows) {
        const auto r = tool(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_TRUE(row.status != 1 || std::count(r.err.begin(), r.err.end(), '\n') == 1) << r.err;
    }
    // A recorder that loses its server before the first event leaves no file.
    bmsg_test::Child gone = recorder(server, {"-o", server.dir() + "/gone.db"});
    bmsg_test::redis_raw(server, "CLIENT KILL TYPE normal");
    EXPECT_TRUE(gone.wait() == 1 && access((server.dir() + "/gone.db").c_str(), F_OK) != 0) << gone.err();
    // One that falls behind by more than the server's limit is closed by the server: exit 1, naming the limit.
    bmsg_test::redis_raw(server, "CONFIG SET client-output-buffer-limit %s", "normal 1mb 0 0");
    bmsg_test::Child slow = recorder(server, {"-o", server.dir() + "/slow.db"});
    slow.kill(SIGSTOP);
    for (int i = 0; i < 40; ++i) bmsg_test::redis_raw(server, "SET big %s", std::string(100000, 'x').c_str());
    EXPECT_TRUE((slow.kill(SIGCONT), slow.wait()) == 1 && slow.err().find("client-output-buffer-limit") != std::string::npos) << slow.err();
}

TEST(Record, BlackBoxWindowsAndNumberedFiles)
{
    RedisServer server, fresh;
    const std::string d = server.dir(), rows = "SELECT time_us, name, payload FROM events";
    const auto sql = [](const std::string& file, const std::string& query) { return shell("sqlite3 " + file + " \"" + query + "\""); };
    std::vector<bmsg_test::Child> recs;  // everything; a black box of 0.5 s before and after; files by size and time, 3 kept
    for (std::vector<std::string> args : {std::vector<std::string>{"-o", d + "/all.db"}, {"-o", d + "/size.db", "--max-size", "0.001", "--keep", "3"},
             {"-o", d + "/time.db", "--max-duration", "0.5", "--keep", "3"}, {"-o", d + "/box.db", "--ring", "0.5", "--after", "0.5", "--trigger", "SYSTEM_STATUS=*error*", "--trigger-key", "mode=fault*"}})
        recs.push_back(recorder(server, args));
    ASSERT_TRUE(bmsg_test::wait_until([&] { std::istringstream l(bmsg_test::redis_raw(server, "CLIENT LIST")); std::string c; int n = 0; while (l >> c) n += c == "cmd=monitor"; return n == 4; }));
    for (int i = 0; i < 52; ++i, usleep(100000)) {
        bmsg_test::redis_raw(server, "LPUSH BIO_CMD %d", i);
        i == 10 ? (void)bmsg_test::redis_raw(server, "PUBLISH SYSTEM_STATUS %s", "an error") : i == 25 ? (void)bmsg_test::redis_raw(server, "SET mode faulty") : i == 40 ? recs[3].kill(SIGUSR1) : void();
    }
    for (auto& r : recs) EXPECT_EQ((r.kill(SIGINT), r.wait()), 0) << r.err();
    std::string triggers;  std::istringstream windows(shell("ls " + d + "/box-*.db"));  // each window: what happened from 0.5 s before its trigger to 0.5 s after
    for (std::string w; windows >> w; triggers += sql(w, "SELECT value FROM meta WHERE key = 'trigger'")) {
        const long long t = std::stoll(sql(w, "SELECT value FROM meta WHERE key = 'trigger_us'"));
        EXPECT_EQ(sql(w, rows), sql(d + "/all.db", rows + " WHERE time_us BETWEEN " + std::to_string(t - 500000) + " AND " + std::to_string(t + 500000))) << w;
        EXPECT_GE(std::stoi(sql(w, "SELECT count(*) FROM events")), 3) << w;
    }
    EXPECT_EQ(triggers, "publish SYSTEM_STATUS=*error*\nset mode=fault*\nSIGUSR1\n");
    // The 3 newest parts, whole recordings each, hold the last events in order; play, info and export take them as one.
    for (const auto& split : {std::pair<std::string, std::string>{"/size", "SELECT 1"}, {"/time", "SELECT max(time_us) - min(time_us) < 500000 FROM events"}}) {
        std::istringstream ls(shell("ls " + d + split.first + "-*.db"));
        std::vector<std::string> parts;  std::string kept;
        for (std::string p; ls >> p; parts.push_back(p))
            EXPECT_TRUE(tool({"info", p}).status == 0 && sql(p, split.second) == "1\n" && !(kept += sql(p, rows)).empty()) << p;
        ASSERT_TRUE(parts.size() == 3 && access((d + split.first + "-0001.db").c_str(), F_OK) != 0) << testing::PrintToString(parts);
        const std::string tail = rows + " WHERE time_us >= " + sql(parts[0], "SELECT min(time_us) FROM events"), jsonl = d + split.first + "/events.jsonl";
        const std::string n = std::to_string(std::stoll(sql(d + "/all.db", "SELECT count(*) FROM (" + tail + ")")));
        EXPECT_EQ(kept, sql(d + "/all.db", tail));
        std::vector<std::string> play = {"-s", fresh.socket(), "play", "--rate", "0"}, info = {"info"}, exp = {"export", "-o", d + split.first};
        for (auto* args : {&play, &info, &exp}) args->insert(args->end(), parts.begin(), parts.end());
        EXPECT_EQ(tool(play).out, "played " + n + " events\n");
        EXPECT_NE(tool(info).out.find("total: 3 files, "), std::string::npos);  // seq of export counted across the files:
        EXPECT_EQ((tool(exp), shell("wc -l < " + jsonl + "; tail -n1 " + jsonl + " | cut -d, -f1")), n + "\n{\"seq\":" + n + "\n");
    }
}

// The report in Chromium without a network: one mark per event, the picture of each sample with its pixels, a missed
// sample marked, no payload taken for markup; screenshots (a phone's, a desktop's) kept in report/ of the build.
TEST(Record, ReportInChromiumOffline)
{
    RedisServer server;
    const std::string modality = bmsg_test::unique("rep"), file = server.dir() + "/rec.db", page = server.dir() + "/report.html";
    BImage::Image image(40, 30, BImage::RGB24, nullptr), gone(8, 8, BImage::GRAY8, nullptr);
    for (int i = 0; i < image.count(); ++i) image.data[i] = static_cast<unsigned char>(i * 13);
    bmsg_test::Child rec = recorder(server, {"-o", file, "--samples"});
    exchange(server, modality, image);
    bmsg_test::redis_raw(server, "PUBLISH SYSTEM_STATUS %s", "<script>document.body.id='pw'+'ned'</script>");
    bmsg_test::redis_raw(server, "RPUSH BIOMETRIC_SAMPLE_gone %b", gone.format_header(), size_t{32});  // no segment: missed
    ASSERT_TRUE(bmsg_test::wait_until([&] { return counted(file, "sample", "BIOMETRIC_SAMPLE_gone") == 1; }));
    EXPECT_EQ((rec.kill(SIGINT), rec.wait()), 0);
    shm_unlink(("/BIOMETRIC_SAMPLE_" + modality).c_str());
    ASSERT_EQ(tool({"report", file, "-o", page}).status, 0);
    const auto chromium = [&](std::vector<std::string> args) {  // in a network namespace of its own (a user one too unless root)
        args.insert(args.begin(), {geteuid() ? "-rn" : "-n", "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--user-data-dir=" + server.dir() + "/chromium"});
        args.push_back("file://" + page);
        bmsg_test::Child c = bmsg_test::spawn_native("unshare", args);
        EXPECT_EQ(c.wait(), 0) << c.err();
        return c.out();
    };
    const std::string dom = chromium({"--dump-dom"});
    size_t marks = 0;
    for (size_t at = 0; (at = dom.find("<a class=\"ev ", at)) != dom.npos; ++at) ++marks;
    EXPECT_TRUE(marks == 11 && dom.find("pwned") == dom.npos && dom.find("data-event=\"11\">missed: ") != dom.npos) << marks << dom;
    const size_t at = dom.find("base64,", dom.find("<img class=\"sample\" data-event=\"9\"")) + 7;
    std::ofstream(server.dir() + "/png.b64") << dom.substr(at, dom.find('"', at) - at);
    picture::Picture png; std::string error;
    ASSERT_TRUE(std::system(("base64 -d " + server.dir() + "/png.b64 > " + server.dir() + "/sample.png").c_str()) == 0 && picture::read_file(server.dir() + "/sample.png", png, error)) << error;
    EXPECT_TRUE(png.channels == 3 && png.pixels == std::vector<unsigned char>(image.data, image.data + image.count()));
    mkdir("report", 0755);
    for (const std::string size : {"390,844", "1280,900"})
        chromium({"--screenshot=report/" + size + ".png", "--window-size=" + size});
}
