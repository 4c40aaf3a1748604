// The device's roles under data/device.acl: each does its job and is refused the rest (-4, on by default
// with a login; exit 1 from the tool); a wrong password fails at once and is not retried; no password is printed.
#include "acl.h"
#include "bimage.h"
#include "bsubscription.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/mman.h>
#include <atomic>

using bMSG::Messager;

TEST(Roles, EachDoesTheDemosExchangeAndIsRefusedTheRest)
{
    bmsg_test::AclServer acl;
    std::map<std::string, std::unique_ptr<Messager>> as;
    for (auto& [user, pw] : acl.passwords)
        as[user] = std::make_unique<Messager>(acl.server->socket().c_str(), 0, 1, user.c_str(), pw.c_str());
    Messager &control = *as["control"], &capture = *as["capture"], &consumer = *as["consumer"], &field = *as["fieldtool"], &recorder = *as["recorder"];
    std::atomic<int> statuses{0};
    bMSG::Subscription sub(control, {"SYSTEM_STATUS"}, [&](const char*, const char*, size_t, void*) { ++statuses; });
    const std::string m = bmsg_test::unique("acl"), list = "BIOMETRIC_SAMPLE_" + m;
    BImage::Image image(4, 2, BImage::GRAY8, nullptr), tall(2, 4, BImage::GRAY8, nullptr), back(0, 0, BImage::GRAY8, nullptr);
    char s[64];
    const int done[] = {control.set("mode", "enroll"), control.get("mode", s, 64), control.bio_cmd_send("%s", "capture:1"),
        control.device_cmd_send("%s", "wake"), control.list_size("BIO_CMD") - 1,
        capture.list_recv("BIO_CMD", s, 64, 1, nullptr, 0) - 9, (capture.set_sample_backpressure(100), capture.bio_sample_send(m.c_str(), &image)),
        field.list_size(list.c_str()) - 1, field.get("mode", s, 64), consumer.list_size(list.c_str()) - 1,
        consumer.bio_sample_recv_into({m.c_str()}, 1, back) - 1, capture.bio_resp_send("%s", "ok"),
        capture.bio_info_send("%s", "i"), control.list_recv("BIOMETRIC_RESP", s, 64, 1, nullptr, 0) - 2,
        control.list_recv("MAIN_BIOMETRIC_INFO", s, 64, 0, nullptr, 0) - 1, capture.system_publish("%s", "a") - 1,
        consumer.system_publish("%s", "b") - 1, control.system_publish("%s", "c") - 1, control.list_clear("BIO_CMD"),
        as["admin"]->list_clear("DEVICE_CMD") - 1};
    for (const int& rc : done)
        EXPECT_EQ(rc, 0) << "step " << &rc - done;
    EXPECT_TRUE(sub.status() == 0 && bMSG::Subscription(field, {"SYSTEM_STATUS"}, nullptr).status() == 0 &&
                bmsg_test::wait_until([&] { return statuses == 3; }) && capture.bio_sample_send(m.c_str(), &image) == 0 &&
                (capture.set_sample_backpressure(-1), capture.bio_sample_send(m.c_str(), &tall)) == 0 &&
                !std::unique_ptr<BImage::Image>(consumer.bio_sample_read(m.c_str())) && consumer.list_size(list.c_str()) == 1) << "a consumer drops a stale descriptor";
    const std::pair<Messager*, int> refused[] = {{&control, control.list_recv(list.c_str(), s, 64, 0, nullptr, 0)},
        {&control, control.bio_sample_recv_into({m.c_str()}, 1, back)}, {&capture, capture.list_recv(list.c_str(), s, 64, 0, nullptr, 0)},
        {&consumer, consumer.bio_cmd_send("%s", "capture:2")}, {&consumer, consumer.get("mode", s, 64)},
        {&field, field.bio_cmd_send("%s", "x")}, {&field, field.list_recv("BIO_CMD", s, 64, 0, nullptr, 0)},
        {&field, field.list_clear(list.c_str())}, {&field, field.set("mode", "x")},
        {&field, field.system_publish("%s", "x")}, {&recorder, recorder.get("mode", s, 64)}, {&capture, capture.subscribe("SYSTEM_STATUS", nullptr)},
        {&capture, capture.bio_sample_read(m.c_str()) ? 0 : -4},  // the connection is kept: it is used below
        {&field, (capture.bio_sample_send(m.c_str(), &image), field.bio_sample_read(m.c_str())) ? 0 : -4}};  // may look, not drop
    EXPECT_TRUE(field.last_error().find("lrem") != std::string::npos && field.list_size(list.c_str()) == 2) << field.last_error();
    for (const auto& [who, rc] : refused)
        EXPECT_TRUE(rc == -4 && who->last_error().rfind("NOPERM", 0) == 0) << rc << who->last_error();
    for (Messager* who : {&control, &capture, &consumer, &field, &recorder})
        for (const char* command : {"FLUSHALL", "KEYS *", "CONFIG GET port", "DEBUG SLEEP 0", "MONITOR"}) {
            auto* r = static_cast<redisReply*>(redisCommand(who->redis_context(), command));
            EXPECT_EQ(r->type, who == &recorder && command[0] == 'M' ? REDIS_REPLY_STATUS : REDIS_REPLY_ERROR) << command;
            freeReplyObject(r);
        }
    shm_unlink(("/" + list).c_str());
}

TEST(Login, WrongPasswordFailsAtOnceAndTheToolLogsInOrFailsWithTheServersText)
{
    bmsg_test::AclServer acl;
    const std::string &pw = acl.passwords["control"], &socket = acl.server->socket();
    const auto auths = [&] {  // AUTH commands the server has run, this one's included
        const Messager admin(socket.c_str(), 0, 1, "admin", acl.passwords["admin"].c_str());
        const std::unique_ptr<redisReply, void (*)(void*)> r(static_cast<redisReply*>(redisCommand(admin.redis_context(), "INFO commandstats")), freeReplyObject);
        return std::stol(strstr(r->str, "cmdstat_auth:calls=") + 19);
    };
    for (const char* user : {"control", "nosuch", ""}) {
        const auto r = bmsg_test::run_captured([&] {
            const long before = auths();
            Messager m(socket.c_str(), 0, 5, user, (pw + "x").c_str());  // 5 attempts: 5 reports if retried
            bMSG::Subscription s(socket.c_str(), 0, {"SYSTEM_STATUS"}, nullptr, user, pw.c_str() + 1);
            int failed = 0;  // within a second of the refusal: at once, no AUTH sent, no report
            for (; failed < 50 && m.set("k", "v") == -1; ++failed) {}
            return (m.redis_context() ? 1 : 0) + (failed == 50 ? 0 : 2) + (s.status() == -1 ? 0 : 4) + (auths() == before + 3 ? 0 : 8);
        });
        EXPECT_TRUE(r.status == 0 && r.err.size() == 2 * r.err.find(':') + 2) << r.status << r.err;  // one report each
        EXPECT_EQ((r.out + r.err).find(pw.substr(1)), std::string::npos);
    }
    // The tool: the password from BMSG_PASSWORD or --askpass (here stdin), refusals exit 1.
    const struct { const char* user; std::vector<std::string> args; int status; const char* err; } rows[] = {
        {"control", {"push", "cmd", "x"}, 0, ""}, {"fieldtool", {"len", "cmd"}, 0, ""}, {"fieldtool", {"--askpass", "ping"}, 0, ""},
        {"fieldtool", {"push", "cmd", "x"}, 1, "NOPERM"}, {"fieldtool", {"pop", "cmd"}, 1, "NOPERM"}, {"fieldtool", {"clear", "cmd"}, 1, "NOPERM"},
        {"consumer", {"push", "cmd", "x"}, 1, "NOPERM"}, {"capture", {"--askpass", "len", "cmd"}, 1, "NOPERM"}, {"nosuch", {"ping"}, 1, "WRONGPASS"},
        {"capture", {"sample", "peek", "m"}, 1, "NOPERM"}, {"capture", {"sample", "recv", "m", "-t", "1"}, 1, "NOPERM"}, {"capture", {"subscribe", "X"}, 1, "NOPERM"},
        {"control", {"watch", "-n", "1"}, 1, "NOPERM"}, {"fieldtool", {"watch", "-n", "1"}, 0, ""}, {"", {"ping"}, 1, "--user"}};
    for (const auto& row : rows) {
        const std::string pw = acl.passwords[acl.passwords.count(row.user) ? row.user : "control"];
        setenv("BMSG_PASSWORD", row.args[0] == "--askpass" ? "wrong" : pw.c_str(), 1);
        std::vector<std::string> args{"-s", acl.server->socket(), "--user", row.user};
        args.insert(args.end(), row.args.begin(), row.args.end());
        bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args, pw + "\n");
        EXPECT_TRUE(c.wait() == row.status && c.err().find(row.err) != std::string::npos && (c.out() + c.err()).find(pw) == std::string::npos)
            << row.args[0] << c.err();
    }
}

TEST(Login, ProvisionAclHashesPlainUserNamesAndRefusesOthersRunningNothing)
{
    const std::string acl = "/tmp/" + bmsg_test::unique("acl"), out = acl + ".out";
    setenv("BMSG_PASSWORD_FIELD_TOOL", "pw", 1), setenv("BMSG_PASSWORD_AB_9", "pw", 1), setenv("BMSG_PASSWORD_FIELD", "no", 1);
    const std::pair<std::string, bool> names[] = {{"field-tool", true}, {"aB_9", true}, {"x-}$(:>PWNED)${x", false},
        {"a`:>PWNED`", false}, {"x;y", false}, {"\xc3\xa9", false}, {"a.b", false}};  // good or not
    for (const auto& [name, good] : names) {
        std::ofstream(acl) << "user admin on\nuser " << name << " on resetpass\n";
        const int status = bmsg_test::spawn_native(BMSG_ACL_PROVISION, {acl, out}).wait();
        std::ifstream in(out);
        const std::string got{std::istreambuf_iterator<char>(in), {}}, hash = " #30c952fab122c3f9759f02a6d95c3758b246b4fee239957b2d4fee46e26170c4\n";  // of "pw"
        EXPECT_TRUE(good ? status == 0 && got.find(name + " on resetpass" + hash) != std::string::npos
                         : status == 1 && !in && access("PWNED", F_OK) != 0) << name << got;
        unlink(out.c_str()), unlink("PWNED");
    }
    unlink(acl.c_str());
}
