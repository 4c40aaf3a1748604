#include "bshmem.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

using bMSG::SharedMemory;
using bmsg_test::Captured;
using bmsg_test::run_captured;
using bmsg_test::thrown_by;

namespace {

std::string unique_name(const char* tag)
{
    return std::string("/bmsg_test_") + tag + "_" + std::to_string(getpid());
}

int wait_child(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Forks a process that opens the segment, takes its mutex, then runs
// `holding` (which must end the process); returns once the lock is held.
pid_t fork_holding_lock(const std::string& name, const std::function<void(SharedMemory&)>& holding)
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        SharedMemory peer(name, 8, false);
        pthread_mutex_lock(peer.mutex);
        (void)!::write(ready[1], "x", 1);
        holding(peer);
        _exit(0);
    }
    char c;
    (void)!::read(ready[0], &c, 1);
    close(ready[0]);
    close(ready[1]);
    return pid;
}

} // namespace

TEST(SharedMemory, DataCrossesProcessesBothWays)
{
    const std::string name = unique_name("data");
    SharedMemory seg(name, 100, true);
    ASSERT_NE(seg.addr, nullptr);
    EXPECT_EQ(seg.size, 148u);
    EXPECT_EQ(static_cast<void*>(seg.mutex), seg.addr);
    EXPECT_TRUE(seg.owner);
    char pattern[100];
    for (int i = 0; i < 100; ++i)
        pattern[i] = static_cast<char>(i * 7);
    seg.write(pattern, 100, 0);

    pid_t pid = fork();
    if (pid == 0) {
        SharedMemory peer(name, 100, false);
        char got[100];
        if (!peer.addr || peer.owner)
            _exit(1);
        peer.read(got, 100, 0);
        if (memcmp(got, pattern, 100) != 0)
            _exit(2);
        peer.write("reply", 5, 95);
        _exit(0);
    }
    ASSERT_EQ(wait_child(pid), 0);
    char tail[5];
    seg.read(tail, 5, 95);
    EXPECT_EQ(std::string(tail, 5), "reply");
    // The payload starts 48 bytes into the segment.
    EXPECT_EQ(memcmp(static_cast<char*>(seg.addr) + 48, pattern, 95), 0);
    SharedMemory still_there(name, 100, false);
    EXPECT_NE(still_there.addr, nullptr) << "a non-owner leaves the name";
}

TEST(SharedMemory, CopiesWaitForTheLockHeldByAnotherProcess)
{
    const std::string name = unique_name("lock");
    SharedMemory seg(name, 8, true);
    pid_t pid = fork_holding_lock(name, [](SharedMemory& peer) {
        usleep(300 * 1000);
        // Written without the class, while the lock is held: a reader that
        // did not wait would see the old byte.
        static_cast<char*>(peer.addr)[48] = 'B';
        pthread_mutex_unlock(peer.mutex);
    });
    char c;
    seg.read(&c, 1, 0);
    EXPECT_EQ(c, 'B');
    EXPECT_EQ(wait_child(pid), 0);
}

TEST(SharedMemory, LockHeldByAKilledProcessIsTakenOver)
{
    const std::string name = unique_name("robust");
    SharedMemory seg(name, 8, true);
    pid_t pid = fork_holding_lock(name, [](SharedMemory&) { pause(); });
    kill(pid, SIGKILL);
    EXPECT_EQ(wait_child(pid), 128 + SIGKILL);

    // Another process reads and writes without hanging.
    pid_t other = fork();
    if (other == 0) {
        alarm(10);
        SharedMemory peer(name, 8, false);
        peer.write("ok", 2, 0);
        char got[2];
        peer.read(got, 2, 0);
        _exit(memcmp(got, "ok", 2) == 0 ? 0 : 1);
    }
    EXPECT_EQ(wait_child(other), 0);
    seg.write("again", 5, 3);
}

TEST(SharedMemory, BoundsAreInclusiveAndOverflowsThrowTheirTexts)
{
    SharedMemory seg("/S" + std::to_string(getpid()), 100, true);
    const std::string n = seg.name;
    char buf[200] = {};
    EXPECT_EQ(thrown_by([&] { seg.write(buf, 120, 0); }),
              "Data size exceeds shared memory size: " + n + " 120+0>148-48");
    EXPECT_EQ(thrown_by([&] { seg.write(buf, 1, 100); }),
              "Data size exceeds shared memory size: " + n + " 1+100>148-48");
    EXPECT_EQ(thrown_by([&] { seg.read(buf, 101, 0); }), "Read size exceeds shared memory size");
    EXPECT_EQ(thrown_by([&] { seg.read(buf, 2, SIZE_MAX); }),
              "Read size exceeds shared memory size") << "no wrap-around";
    EXPECT_EQ(thrown_by([&] { seg.write(buf, 0, 100); }), "(nothing thrown)");
    EXPECT_EQ(thrown_by([&] { seg.read(buf, 0, 100); }), "(nothing thrown)");
    EXPECT_EQ(thrown_by([&] { seg.write(buf, 100, 0); }), "(nothing thrown)");

    SharedMemory empty(unique_name("zero"), 0, true);
    EXPECT_EQ(empty.size, 48u);
    EXPECT_NE(thrown_by([&] { empty.write(buf, 1, 0); }), "(nothing thrown)");
    EXPECT_NE(thrown_by([&] { empty.read(buf, 0, 1); }), "(nothing thrown)");
    EXPECT_EQ(thrown_by([&] { empty.read(buf, 0, 0); }), "(nothing thrown)");
}

TEST(SharedMemory, OpenFailuresLeaveAnInvalidObjectQuietly)
{
    const std::string name = unique_name("missing");
    Captured c = run_captured([&] {
        SharedMemory missing(name, 10, false);
        if (missing.addr || missing.fd != -1 || missing.mutex || missing.owner)
            return 1;
        // A segment shorter than asked for counts as missing (no SIGBUS).
        SharedMemory small(name, 10, true);
        SharedMemory bigger(name, 4096, false);
        if (bigger.addr || bigger.fd != -1)
            return 2;
        SharedMemory fitting(name, 10, false);
        return fitting.addr ? 0 : 3;
    });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out + c.err, "");
}

TEST(SharedMemory, CreateFailuresThrowAndReportShmOpen)
{
    Captured c = run_captured([] {
        const std::string text = thrown_by([] { SharedMemory bad("/no/such/dir", 8, true); });
        return text == "Failed to create shared memory: /no/such/dir" ? 0 : 1;
    });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.err.rfind("shm_open: ", 0), 0u) << c.err;

    const std::string huge = thrown_by([] { SharedMemory h(unique_name("huge"), SIZE_MAX, true); });
    EXPECT_EQ(huge, "Failed to set size of shared memory");
    SharedMemory gone(unique_name("huge"), 1, false);
    EXPECT_EQ(gone.addr, nullptr) << "the failed creation removed the name";
}

TEST(SharedMemory, RecreatingResizesAndOnlyTheOwnerUnlinks)
{
    const std::string name = unique_name("recreate");
    {
        SharedMemory first(name, 10, true);
        first.write("abc", 3, 0);
        SharedMemory second(name, 1000, true);
        struct stat st;
        ASSERT_EQ(fstat(second.fd, &st), 0);
        EXPECT_EQ(st.st_size, 1048);
        char got[3];
        second.read(got, 3, 0);
        EXPECT_EQ(std::string(got, 3), "abc") << "the same object, resized";
        second.close();
        second.close();  // a second close does nothing
        EXPECT_EQ(second.addr, nullptr);
        EXPECT_EQ(second.fd, -1);
        SharedMemory after(name, 10, false);
        EXPECT_EQ(after.addr, nullptr) << "closing the owner unlinked the name";
    }
    SharedMemory none(name, 10, false);
    EXPECT_EQ(none.addr, nullptr);
}
