// Faults of the Redis server: killed (SIGKILL, by pid) under blocked and
// busy clients, restarted, or slow to appear.
#include "bmessager.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

using bmsg_test::Captured;
using bmsg_test::RedisServer;
using bmsg_test::redis_raw;
using bmsg_test::run_captured;
using bmsg_test::seconds_since;
using bmsg_test::wait_until;

namespace {

using Clock = std::chrono::steady_clock;

// Every fault runs over TCP and over the Unix socket.
class ServerKilled : public ::testing::TestWithParam<bool> {
protected:
    RedisServer server;
    const char* address() const { return GetParam() ? server.socket().c_str() : "127.0.0.1"; }
};

INSTANTIATE_TEST_SUITE_P(Transport, ServerKilled, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "unix" : "tcp"; });

} // namespace

TEST_P(ServerKilled, BlockedPopAndSubscribeReturnAtOnceAndANewMessagerWorksAfterRestart)
{
    std::atomic<int> pop_rc{1}, pop_again{1}, set_after{1}, sub_rc{1};
    std::atomic<double> pop_took{0};
    std::thread popper([&] {
        bMSG::Messager m(address(), server.port(), 1);
        char buf[64], key[16];
        auto t = Clock::now();
        pop_rc = m.list_recv("Q", buf, 64, 20, key, 16);
        pop_took = seconds_since(t);
        pop_again = m.list_recv("Q", buf, 64, 20, key, 16);
        set_after = m.set("k", "v");
    });
    std::thread subscriber([&] {
        bMSG::Messager m(address(), server.port(), 1);
        sub_rc = m.subscribe("C", [](const char*, const char*, size_t, void*) {});
    });
    ASSERT_TRUE(wait_until([&] {
        return redis_raw(server, "INFO clients").find("blocked_clients:1") != std::string::npos &&
               redis_raw(server, "PUBSUB NUMSUB C") == "C\n1";
    }));
    server.stop(SIGKILL);
    popper.join();
    subscriber.join();
    EXPECT_EQ(pop_rc.load(), -3);
    EXPECT_LT(pop_took.load(), 10.0) << "returned on the kill, not at its 20 s time-out";
    EXPECT_EQ(pop_again.load(), -3) << "the broken connection is kept";
    EXPECT_EQ(set_after.load(), -7);
    EXPECT_EQ(sub_rc.load(), 0);

    server.restart();
    bMSG::Messager fresh(address(), server.port(), 1);
    ASSERT_NE(fresh.redis_context(), nullptr);
    char buf[64] = {};
    EXPECT_EQ(fresh.set("k", "back"), 0);
    EXPECT_EQ(fresh.get("k", buf, 64), 0);
    EXPECT_STREQ(buf, "back");
    EXPECT_EQ(fresh.list_send("Q", "%s", "again"), 0);
    EXPECT_EQ(fresh.list_recv("Q", buf, 64, 1, nullptr, 0), 5);

    std::atomic<int> got{0};
    std::thread resubscribed([&] {
        bMSG::Messager m(address(), server.port(), 1);
        m.subscribe("C", [&](const char*, const char* p, size_t n, void*) {
            if (std::string(p, n) == "hello")
                ++got;
        });
    });
    ASSERT_TRUE(bmsg_test::wait_subscribers(server, "C", 1));
    EXPECT_EQ(fresh.publish("C", "%s", "hello"), 1);
    EXPECT_TRUE(wait_until([&] { return got.load() == 1; }));
    server.stop(SIGKILL);
    resubscribed.join();
}

TEST_P(ServerKilled, CommandsInALoopFailWithTheirCodesOnceTheServerIsGone)
{
    // Another thread kills the server in the middle of the loop's work.
    std::thread killer([&] {
        wait_until([&] { return atoi(redis_raw(server, "GET k").c_str()) >= 300; });
        server.stop(SIGKILL);
    });
    Captured c = run_captured([&] {
        bMSG::Messager m(address(), server.port(), 1);
        if (!m.redis_context())
            return 10;
        const auto t = Clock::now();
        int failed_at = -1;
        for (int i = 0; seconds_since(t) < 60; ++i) {
            char buf[32], key[16];
            int codes[6] = {
                m.set("k", i),
                m.get("k", buf, sizeof buf),
                m.list_send("L", "%d", i),
                m.list_recv("L", buf, sizeof buf, i % 2, key, sizeof key),
                i % 2 ? m.publish("C", "%d", i) : m.system_publish("%d", i),
                m.list_size("L"),
            };
            const int no_reply[6] = {-7, -8, -2, -3, -2, -3};
            for (int op = 0; op < 6; ++op) {
                const bool fail = codes[op] == no_reply[op];
                if (!fail && (codes[op] < 0 || failed_at >= 0)) {
                    printf("iteration %d operation %d: unexpected %d\n", i, op, codes[op]);
                    return 1;
                }
                if (fail && failed_at < 0)
                    failed_at = i;
            }
            if (failed_at >= 0 && i - failed_at >= 20) {
                printf("failed from iteration %d on\n", failed_at);
                return 0;
            }
        }
        return 3;
    });
    killer.join();
    EXPECT_EQ(c.status, 0) << c.out;
    EXPECT_NE(c.out.find("failed from iteration"), std::string::npos) << c.out;
}

TEST(SlowServer, FiveAttemptsConnectOnceTheServerAppears)
{
    RedisServer server;
    server.stop();
    Captured c = run_captured([&] {
        std::thread starter([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(2000));
            server.restart();
        });
        const auto t = Clock::now();
        bMSG::Messager m(server.socket().c_str(), 0, 5);
        const double took = seconds_since(t);
        starter.join();
        char buf[8] = {};
        const bool works = m.redis_context() && m.set("k", "up") == 0 &&
                           m.get("k", buf, 8) == 0 && strcmp(buf, "up") == 0;
        server.stop();
        // A fifth failed attempt would have ended after 5 s.
        return works ? (took < 4.5 ? 0 : 2) : 1;
    });
    EXPECT_EQ(c.status, 0) << c.out;
    const std::string report = "bMSG ERROR connect[";
    size_t reports = 0;
    for (size_t at = c.err.find(report); at != std::string::npos; at = c.err.find(report, at + 1))
        ++reports;
    EXPECT_GE(reports, 1u) << c.err;
    EXPECT_LE(reports, 4u) << c.err;
    EXPECT_NE(c.out.find("address[" + server.socket() + "]"), std::string::npos) << c.out;
}

TEST(Sigpipe, CommandsAfterTheServerDiedNeitherDieNorTouchTheCallersSignals)
{
    RedisServer server;
    {
        bMSG::Messager m(server.socket().c_str(), 0, 1);
        server.stop(SIGKILL);
        // Default disposition: a write to the dead socket must not kill the
        // process, and its signal mask is left as it was.
        Captured c = run_captured([&] {
            if (m.set("k", "v") != -7 || m.list_send("L", "%s", "x") != -2)
                return 1;
            sigset_t mask;
            pthread_sigmask(SIG_SETMASK, nullptr, &mask);
            return sigismember(&mask, SIGPIPE) ? 2 : 0;
        });
        EXPECT_EQ(c.status, 0) << "128 + 13 is death by SIGPIPE";
    }
    server.restart();
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    server.stop(SIGKILL);
    // An application that blocks SIGPIPE itself and has one pending keeps it.
    Captured c = run_captured([&] {
        sigset_t pipe_only;
        sigemptyset(&pipe_only);
        sigaddset(&pipe_only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
        raise(SIGPIPE);
        if (m.set("k", "v") != -7)
            return 1;
        sigset_t pending, mask;
        sigpending(&pending);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&pending, SIGPIPE) && sigismember(&mask, SIGPIPE) ? 0 : 2;
    });
    EXPECT_EQ(c.status, 0);
}
