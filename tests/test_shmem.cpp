#include "bshmem.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using bMSG::SharedMemory;
using bmsg_test::thrown_by;

namespace {

const std::string none = "(nothing thrown)";
std::string unique_name(const char* tag) { return "/bmsg_test_" + std::string(tag) + std::to_string(getpid()); }
bool exists(const std::string& name) { return SharedMemory(name, 0, false).addr != nullptr; }

std::string text(SharedMemory& seg, size_t len, size_t offset = 0)
{
    std::string s(len, '\0');
    seg.read(&s[0], len, offset);
    return s;
}

} // namespace

// name, ms: opens the segment, takes its lock, says "locked", then after ms
// writes 'B' to payload byte 0 behind the class's back, unlocks and returns.
BMSG_ROLE(hold_lock)
{
    SharedMemory peer(args.at(0), 8, false);
    if (!peer.addr || peer.owner || pthread_mutex_lock(peer.mutex) != 0)
        return 1;
    printf("locked\n");
    fflush(stdout);
    usleep(std::stoi(args.at(1)) * 1000);
    static_cast<char*>(peer.addr)[SharedMemory::header_size] = 'B';
    pthread_mutex_unlock(peer.mutex);
    return 0;
}

TEST(SharedMemory, OnlyTheCreatorUnlinksCopiesWaitForAnotherProcessAndADeadOwnersLockIsTakenOver)
{
    const std::string name = unique_name("owner");
    {
        SharedMemory seg(name, 100, true);
        ASSERT_TRUE(seg.addr && seg.size == 148 && static_cast<void*>(seg.mutex) == seg.addr);
        seg.write("hello", 5, 0);
        bmsg_test::Child holder = bmsg_test::spawn_role("hold_lock", {name, "300"});
        ASSERT_TRUE(bmsg_test::wait_until([&] { return holder.out() == "locked\n"; })) << holder.err();
        EXPECT_EQ(text(seg, 5), "Bello") << "a reader that did not wait sees the old byte";
        EXPECT_EQ(holder.wait(), 0) << holder.err();
        EXPECT_TRUE(exists(name)) << "a process that did not create it left the name";
    }
    EXPECT_FALSE(exists(name)) << "the creator's destructor unlinks";
    if (!bmsg_test::robust_futexes())
        GTEST_SKIP() << "this platform has no robust futexes (get_robust_list: ENOSYS)";
    SharedMemory seg(name, 8, true);
    bmsg_test::Child dying = bmsg_test::spawn_role("hold_lock", {name, "100000"});
    ASSERT_TRUE(bmsg_test::wait_until([&] { return dying.out() == "locked\n"; }));
    dying.kill(SIGKILL);
    EXPECT_EQ(dying.wait(), 128 + SIGKILL);
    EXPECT_EQ(thrown_by([&] { seg.write("ok", 2, 0); }), none) << "the dead owner's lock taken over";
    EXPECT_EQ(text(seg, 2), "ok");
}

TEST(SharedMemory, BoundsAreInclusiveAndOverflowsThrowTheirTexts)
{
    SharedMemory seg(unique_name("bounds"), 100, true);
    const std::string over = "Data size exceeds shared memory size: " + seg.name + " ";
    const std::string under = "Read size exceeds shared memory size", max = std::to_string(SIZE_MAX);
    const struct { size_t len, offset; std::string write, read; } rows[] = {
        {101, 0, over + "101+0>148-48", under}, {1, 100, over + "1+100>148-48", under},
        {2, SIZE_MAX, over + "2+" + max + ">148-48", under}, {SIZE_MAX, 1, over + max + "+1>148-48", under},
        {0, 100, none, none}, {100, 0, none, none}, {1, 99, none, none}};
    char buf[200] = {};
    for (const auto& r : rows) {
        int called = 0;
        EXPECT_EQ(thrown_by([&] { seg.write(buf, r.len, r.offset); }), r.write) << r.len << "+" << r.offset;
        EXPECT_EQ(thrown_by([&] { seg.write(r.len, r.offset, [&](unsigned char*) { ++called; }); }), r.write);
        EXPECT_EQ(thrown_by([&] { seg.read(buf, r.len, r.offset); }), r.read) << r.len << "+" << r.offset;
        EXPECT_EQ(thrown_by([&] { seg.read(r.len, r.offset, [&](const unsigned char*) { ++called; }); }), r.read);
        EXPECT_EQ(called, r.read == none ? 2 : 0);
    }
}

TEST(SharedMemory, OpenFailsQuietlyCreateThrowsRecreateResizesCloseTwice)
{
    const std::string name = unique_name("open"), huge = unique_name("huge");
    SharedMemory missing(name, 10, false);
    EXPECT_TRUE(!missing.addr && missing.fd == -1 && !missing.mutex && !missing.owner);
    SharedMemory first(name, 10, true);
    first.write("abc", 3, 0);
    SharedMemory bigger(name, 4096, false);  // shorter than asked: missing, no SIGBUS later
    EXPECT_TRUE(!bigger.addr && bigger.fd == -1);
    EXPECT_TRUE(SharedMemory(name, 10, false).addr && SharedMemory(name, 0, false).addr);
    {
        SharedMemory second(name, 1000, true);
        EXPECT_EQ(text(second, 3) + text(second, 1, 999), std::string("abc") + '\0') << "the same object, resized";
        second.close();
        second.close();
        EXPECT_TRUE(!second.addr && second.fd == -1 && !second.mutex && exists(name)) << "only its creator unlinks";
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(thrown_by([] { SharedMemory bad("/no/such/dir", 8, true); }),
              "Failed to create shared memory: /no/such/dir");
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("shm_open: ", 0), 0u);
    EXPECT_EQ(thrown_by([&] { SharedMemory h(huge, SIZE_MAX, true); }), "Failed to set size of shared memory");
    EXPECT_FALSE(exists(huge)) << "the failed creation removed the name";
}
