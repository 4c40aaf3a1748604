#include "bshmem.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <thread>

using bMSG::SharedMemory;

namespace {

std::string unique_name(const char* tag) { return "/" + bmsg_test::unique("bmsg_test_" + std::string(tag)); }
bool exists(const std::string& name) { return SharedMemory(name, 0, false).addr != nullptr; }
bool throws(const std::function<void()>& f) { try { f(); } catch (const std::runtime_error&) { return true; } return false; }
std::string text(SharedMemory& seg, size_t len) { std::string s(len, '\0'); return seg.read(&s[0], len, 0), s; }

} // namespace

// name, ms: opens the segment, takes its lock, says "locked", then after ms
// writes 'B' to payload byte 0 behind the class's back, unlocks and returns.
BMSG_ROLE(hold_lock)
{
    SharedMemory peer(args.at(0), 8, false);
    if (!peer.addr || peer.owner || pthread_mutex_lock(peer.mutex) != 0 || printf("locked\n") < 0 || fflush(stdout))
        return 1;
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
    // A creator died between its open and its mutex write: two senders replace its empty object once.
    const std::string abandoned = unique_name("abandoned");
    close(shm_open(abandoned.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
    std::unique_ptr<SharedMemory> a, b;
    std::thread other([&] { b = std::make_unique<SharedMemory>(abandoned, 8, true); });
    a = std::make_unique<SharedMemory>(abandoned, 8, true);
    other.join();
    EXPECT_TRUE((a->write("x", 1, 0), a->owner != b->owner) && text(*b, 1) == "x");
    if (getenv("BMSG_TEST_EMULATOR"))
        GTEST_SKIP() << "qemu-user has no robust futexes: a dead owner's lock is never released";
    SharedMemory seg(name, 8, true);
    bmsg_test::Child dying = bmsg_test::spawn_role("hold_lock", {name, "100000"});
    ASSERT_TRUE(bmsg_test::wait_until([&] { return dying.out() == "locked\n"; }));
    dying.kill(SIGKILL);
    EXPECT_EQ(dying.wait(), 128 + SIGKILL);
    EXPECT_EQ((seg.write("ok", 2, 0), text(seg, 2)), "ok") << "the dead owner's lock taken over";
    // A thread died holding it, and its next owner left it inconsistent: no one can lock it again.
    std::thread([&] { pthread_mutex_lock(seg.mutex); }).join();
    ASSERT_TRUE(pthread_mutex_lock(seg.mutex) == EOWNERDEAD && !pthread_mutex_unlock(seg.mutex) && throws([&] { SharedMemory(name, 8, true); }));
    const std::string mapped(std::istreambuf_iterator<char>(std::ifstream("/proc/self/maps").rdbuf()), {}), mine = "/dev/shm" + name + "\n";
    EXPECT_EQ(mapped.find(mine), mapped.rfind(mine)) << "the attach that could not lock unmapped what it had mapped";
}

TEST(SharedMemory, BoundsAreInclusiveAndOverflowsThrow)
{
    SharedMemory seg(unique_name("bounds"), 100, true);
    const struct { size_t len, offset; bool fits; } rows[] = {
        {101, 0, false}, {1, 100, false}, {2, SIZE_MAX, false}, {SIZE_MAX, 1, false}, {0, 100, true}, {1, 99, true}};
    char buf[200] = {};
    for (const auto& r : rows) {
        int called = 0;
        EXPECT_EQ((std::vector<bool>{throws([&] { seg.write(buf, r.len, r.offset); }),
                                     throws([&] { seg.write(r.len, r.offset, [&](unsigned char*) { ++called; }); }),
                                     throws([&] { seg.read(buf, r.len, r.offset); }),
                                     throws([&] { seg.read(r.len, r.offset, [&](const unsigned char*) { ++called; }); })}),
                  std::vector<bool>(4, !r.fits)) << r.len << "+" << r.offset;
        EXPECT_EQ(called, r.fits ? 2 : 0);
    }
}

TEST(SharedMemory, OpenFailsQuietlyFailedCreationsThrowAndLeaveNothingCloseTwice)
{
    const std::string name = unique_name("open"), huge = unique_name("huge");
    SharedMemory missing(name, 10, false);
    EXPECT_TRUE(!missing.addr && missing.fd == -1 && !missing.mutex && !missing.owner);
    SharedMemory first(name, 10, true);
    SharedMemory bigger(name, 4096, false);  // shorter than asked: missing, no SIGBUS later
    EXPECT_TRUE(!bigger.addr && bigger.fd == -1);
    EXPECT_TRUE(SharedMemory(name, 10, false).addr && SharedMemory(name, 0, false).addr);
    {
        first.write("abc", 3, 0);
        SharedMemory second(name, 1000, true);  // attaches: the same object, grown, mutex kept
        char tail = 1;
        EXPECT_TRUE((second.read(&tail, 1, 999), text(second, 3)) == "abc" && tail == 0 && !second.owner) << "the same object, grown";
        second.close(), second.close();
        EXPECT_TRUE(!second.addr && second.fd == -1 && !second.mutex && exists(name)) << "only its creator unlinks";
    }
    first.close(), first.close();
    EXPECT_TRUE(!first.addr && first.fd == -1 && !first.mutex && !exists(name));
    const auto fds = bmsg_test::open_fds();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(throws([] { SharedMemory bad("/no/such/dir", 8, true); }) && throws([&] { SharedMemory h(huge, SIZE_MAX, true); }));
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(!exists(huge) && bmsg_test::open_fds() == fds) << "the failed creation removed the name and closed it";
}
