// Logins and the device's roles under data/device.acl: each role does its
// job, is refused the rest (-4 with the opt-in, exit 1 from the tool), a
// wrong password fails at once, and no password is ever printed.
#include "acl.h"
#include "bimage.h"
#include "bmessager.h"
#include "bsubscription.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

using bMSG::Messager;

namespace {

std::unique_ptr<Messager> as(bmsg_test::AclServer& acl, const std::string& user)
{
    auto m = std::make_unique<Messager>(acl.server->socket().c_str(), 0, 1, user.c_str(),
                                        acl.passwords[user].c_str());
    m->set_error_replies(true);
    return m;
}

} // namespace

TEST(Roles, EachDoesTheDemosExchangeAndIsRefusedTheRest)
{
    bmsg_test::AclServer acl;
    auto control = as(acl, "control"), capture = as(acl, "capture"), consumer = as(acl, "consumer"),
         field = as(acl, "fieldtool"), recorder = as(acl, "recorder"), admin = as(acl, "admin");
    std::atomic<int> statuses{0};
    bMSG::Subscription sub(*control, {"SYSTEM_STATUS"}, [&](const char*, const char*, size_t, void*) { ++statuses; });
    bMSG::Subscription watch(*field, {"SYSTEM_STATUS"}, [](const char*, const char*, size_t, void*) {});
    EXPECT_EQ(sub.status() + watch.status(), 0);
    const std::string m = "acl" + std::to_string(getpid()), list = "BIOMETRIC_SAMPLE_" + m;
    BImage::Image image(4, 2, BImage::GRAY8, nullptr), back(0, 0, BImage::GRAY8, nullptr);
    char text[64];
    const int done[] = {
        control->set("mode", "enroll"), control->get("mode", text, sizeof text),
        control->bio_cmd_send("%s", "capture:1"), control->device_cmd_send("%s", "wake"),
        control->list_size("BIO_CMD") - 1, capture->list_recv("BIO_CMD", text, 64, 1, nullptr, 0) - 9,
        capture->bio_sample_send(m.c_str(), &image), field->list_size(list.c_str()) - 1,
        field->get("mode", text, sizeof text), consumer->list_size(list.c_str()) - 1,
        consumer->bio_sample_recv_into({m.c_str()}, 1, back) - 1, capture->bio_resp_send("%s", "ok"),
        capture->bio_info_send("%s", "i"), control->list_recv("BIOMETRIC_RESP", text, 64, 1, nullptr, 0) - 2,
        control->list_recv("MAIN_BIOMETRIC_INFO", text, 64, 0, nullptr, 0) - 1,
        capture->system_publish("%s", "a") - 2, consumer->system_publish("%s", "b") - 2,
        control->system_publish("%s", "c") - 2, control->list_clear("BIO_CMD"),
        admin->list_clear("DEVICE_CMD") - 1};
    for (size_t i = 0; i < sizeof done / sizeof *done; ++i)
        EXPECT_EQ(done[i], 0) << "step " << i << ": " << control->last_error();
    EXPECT_TRUE(bmsg_test::wait_until([&] { return statuses == 3; }));
    capture->bio_sample_send(m.c_str(), &image);
    const struct { Messager* who; int rc; } refused[] = {
        {control.get(), control->list_recv(list.c_str(), text, 64, 0, nullptr, 0)},
        {control.get(), control->bio_sample_recv_into({m.c_str()}, 1, back)},
        {capture.get(), capture->list_recv(list.c_str(), text, 64, 0, nullptr, 0)},
        {consumer.get(), consumer->bio_cmd_send("%s", "capture:2")},
        {consumer.get(), consumer->get("mode", text, sizeof text)},
        {field.get(), field->bio_cmd_send("%s", "x")}, {field.get(), field->list_recv("BIO_CMD", text, 64, 0, nullptr, 0)},
        {field.get(), field->list_clear(list.c_str())}, {field.get(), field->set("mode", "x")},
        {field.get(), field->system_publish("%s", "x")}, {recorder.get(), recorder->get("mode", text, 64)}};
    for (const auto& row : refused) {
        EXPECT_EQ(row.rc, -4) << &row - refused;
        EXPECT_EQ(row.who->last_error().rfind("NOPERM", 0), 0u) << row.who->last_error();
    }
    for (Messager* who : {control.get(), capture.get(), consumer.get(), field.get(), recorder.get()})
        for (const char* command : {"FLUSHALL", "KEYS *", "CONFIG GET port", "DEBUG SLEEP 0", "MONITOR"}) {
            auto* r = static_cast<redisReply*>(redisCommand(who->redis_context(), command));
            EXPECT_EQ(r->type, who == recorder.get() && command[0] == 'M' ? REDIS_REPLY_STATUS : REDIS_REPLY_ERROR) << command;
            freeReplyObject(r);
        }
    shm_unlink(("/" + list).c_str());
}

TEST(Login, WrongPasswordFailsAtOnceWithOneReportAndNoSecretPrinted)
{
    bmsg_test::AclServer acl;
    const std::string& pw = acl.passwords["control"];
    const char* socket = acl.server->socket().c_str();
    for (const char* user : {"control", "nosuch", ""}) {
        const auto r = bmsg_test::run_captured([&] {
            Messager m(socket, 0, 5, user, (pw + "x").c_str());
            bMSG::Subscription s(socket, 0, {"SYSTEM_STATUS"}, nullptr, user, pw.c_str() + 1);
            return (m.redis_context() ? 1 : 0) + (m.set("k", "v") == -1 ? 0 : 2) + (s.status() == -1 ? 0 : 4);
        });
        EXPECT_EQ(r.status, 0) << user;
        EXPECT_EQ(r.err.size(), 3 * r.err.find(':') + 3) << r.err;  // one report each
        EXPECT_EQ((r.out + r.err).find(pw.substr(1)), std::string::npos);
    }
}

TEST(Login, ToolTakesThePasswordFromTheEnvironmentOrAskpassAndFailsOnRefusals)
{
    bmsg_test::AclServer acl;
    const struct { const char* user; std::vector<std::string> args; int status; const char* err; } rows[] = {
        {"control", {"push", "cmd", "x"}, 0, ""}, {"control", {"set", "k", "v"}, 0, ""},
        {"fieldtool", {"len", "cmd"}, 0, ""}, {"fieldtool", {"get", "k"}, 0, ""},
        {"fieldtool", {"--askpass", "ping"}, 0, ""}, {"fieldtool", {"push", "cmd", "x"}, 1, "NOPERM"},
        {"fieldtool", {"pop", "cmd"}, 1, "NOPERM"}, {"fieldtool", {"clear", "cmd"}, 1, "NOPERM"},
        {"consumer", {"push", "cmd", "x"}, 1, "NOPERM"}, {"recorder", {"ping"}, 0, ""},
        {"capture", {"--askpass", "len", "cmd"}, 1, "NOPERM"}, {"nosuch", {"ping"}, 1, "WRONGPASS"}};
    for (const auto& row : rows) {
        const std::string pw = acl.passwords[acl.passwords.count(row.user) ? row.user : "control"];
        setenv("BMSG_PASSWORD", row.args[0] == "--askpass" ? "wrong" : pw.c_str(), 1);
        std::vector<std::string> args{"-s", acl.server->socket(), "--user", row.user};
        args.insert(args.end(), row.args.begin(), row.args.end());
        bmsg_test::Child c = bmsg_test::spawn_program(BMSG_TOOL, args, pw + "\n");
        EXPECT_EQ(c.wait(), row.status) << row.args[0] << c.err();
        EXPECT_NE(c.err().find(row.err), std::string::npos) << c.err();
        EXPECT_EQ((c.out() + c.err()).find(pw), std::string::npos);
    }
    unsetenv("BMSG_PASSWORD");
}
