#include "bshmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace bMSG {

static_assert(sizeof(pthread_mutex_t) <= SharedMemory::header_size,
              "the segment mutex must fit the 48-byte header");
#if defined(__aarch64__) && defined(__GLIBC__)
static_assert(sizeof(pthread_mutex_t) == SharedMemory::header_size,
              "on the device the segment mutex fills the 48-byte header exactly");
#endif

namespace {

// Total mapped length; saturates instead of wrapping so that an absurd
// capacity fails in ftruncate/mmap rather than mapping a tiny segment.
uint64_t total_size(size_t capacity)
{
    return capacity > SIZE_MAX - SharedMemory::header_size ? SIZE_MAX
                                                           : capacity + SharedMemory::header_size;
}

// Payload bounds check without overflow: offset + len <= capacity.
bool in_range(uint64_t size, size_t len, size_t offset)
{
    const uint64_t capacity = size - SharedMemory::header_size;
    return len <= capacity && offset <= capacity - len;
}

// The text of the exception for a write past the capacity.
std::string overflow_text(const std::string& name, size_t len, size_t offset, uint64_t size)
{
    return "Data size exceeds shared memory size: " + name + " " + std::to_string(len) + "+" +
           std::to_string(offset) + ">" + std::to_string(size) + "-" +
           std::to_string(SharedMemory::header_size);
}

// Whether the kernel keeps robust futex lists. Some kernels are built
// without them, and qemu-user does not emulate them; glibc still accepts the
// robust attribute there, but the owner's death is never noticed. Asked once.
bool robust_futexes()
{
    static const bool available = [] {
        void* head = nullptr;
        size_t len = 0;
        return syscall(SYS_get_robust_list, 0, &head, &len) == 0 || errno != ENOSYS;
    }();
    return available;
}

// Holds the segment mutex for one copy. Where robust futexes exist the mutex
// is robust: when a peer died holding it, the lock is taken over and made
// consistent, so one crashed process cannot block every other one for ever.
// Elsewhere it is the plain process-shared mutex.
class SegmentLock {
public:
    explicit SegmentLock(pthread_mutex_t* m) : mutex_(m)
    {
        int rc = pthread_mutex_lock(mutex_);
        if (rc == EOWNERDEAD)
            rc = pthread_mutex_consistent(mutex_);
        if (rc != 0)
            throw std::runtime_error("Failed to lock shared memory");
    }
    ~SegmentLock() { pthread_mutex_unlock(mutex_); }
    SegmentLock(const SegmentLock&) = delete;
    SegmentLock& operator=(const SegmentLock&) = delete;

private:
    pthread_mutex_t* mutex_;
};

} // namespace

SharedMemory::SharedMemory(const std::string& name_, size_t capacity, bool create_)
    : name(name_), size(total_size(capacity)), fd(-1), addr(nullptr), mutex(nullptr), owner(create_)
{
    if (owner) {
        create();
        return;
    }
    fd = shm_open(name.c_str(), O_RDWR, 0666);
    if (fd == -1)
        return;
    // A segment shorter than the mapping would fault (SIGBUS) on access past
    // its end: such a segment counts as missing.
    struct stat st;
    if (fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= size)
        map();
    if (!addr)
        release();
}

SharedMemory::~SharedMemory()
{
    close();
}

void SharedMemory::map()
{
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED)
        return;
    addr = p;
    mutex = static_cast<pthread_mutex_t*>(p);
}

void SharedMemory::create()
{
    release();
    fd = shm_open(name.c_str(), O_CREAT | O_RDWR, 0666);
    if (fd == -1) {
        perror("shm_open");
        throw std::runtime_error("Failed to create shared memory: " + name);
    }
    // A half-made segment is removed again, under the name we gave it.
    auto fail = [this](const char* what) {
        release();
        shm_unlink(name.c_str());
        throw std::runtime_error(what);
    };
    if (ftruncate(fd, static_cast<off_t>(size)) == -1)
        fail("Failed to set size of shared memory");
    map();
    if (!addr)
        fail("Failed to map shared memory");
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    if (robust_futexes())
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

void SharedMemory::write(const void* data, size_t len, size_t offset)
{
    if (!in_range(size, len, offset))
        throw std::runtime_error(overflow_text(name, len, offset, size));
    SegmentLock lock(mutex);
    if (len)
        memcpy(static_cast<char*>(addr) + header_size + offset, data, len);
}

void SharedMemory::read(void* buf, size_t len, size_t offset)
{
    if (!in_range(size, len, offset))
        throw std::runtime_error("Read size exceeds shared memory size");
    SegmentLock lock(mutex);
    if (len)
        memcpy(buf, static_cast<const char*>(addr) + header_size + offset, len);
}

void SharedMemory::write(size_t len, size_t offset,
                         const std::function<void(unsigned char*)>& fill)
{
    if (!in_range(size, len, offset))
        throw std::runtime_error(overflow_text(name, len, offset, size));
    SegmentLock lock(mutex);
    fill(static_cast<unsigned char*>(addr) + header_size + offset);
}

void SharedMemory::read(size_t len, size_t offset,
                        const std::function<void(const unsigned char*)>& use)
{
    if (!in_range(size, len, offset))
        throw std::runtime_error("Read size exceeds shared memory size");
    SegmentLock lock(mutex);
    use(static_cast<const unsigned char*>(addr) + header_size + offset);
}

void SharedMemory::restrict_mode(const std::string& name, mode_t mode)
{
    // Created with no permission bits, the object cannot be opened by anyone
    // else before fchmod gives it the mode asked for.
    const int d = shm_open(name.c_str(), O_CREAT | O_RDWR, 0);
    const bool ok = d != -1 && fchmod(d, mode) == 0;
    if (d != -1)
        ::close(d);
    if (!ok)
        throw std::runtime_error("Failed to set mode of shared memory: " + name);
}

void SharedMemory::close()
{
    const bool was_open = fd != -1;
    release();
    if (owner && was_open)
        shm_unlink(name.c_str());
}

void SharedMemory::release()
{
    if (addr)
        munmap(addr, size);
    if (fd != -1)
        ::close(fd);
    addr = nullptr;
    mutex = nullptr;
    fd = -1;
}

} // namespace bMSG
