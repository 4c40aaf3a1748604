#include "bshmem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
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
// capacity fails in posix_fallocate/mmap rather than mapping a tiny segment.
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

// Writes the first 48 bytes of a segment this process has just created: an
// initialised, unlocked mutex (robust where robust futexes exist) and zeros,
// in one write, so that the object's length reaching 48 tells attachers the
// mutex is ready. glibc keeps no address in an unlocked mutex, so the bytes
// may be made here and copied.
bool write_mutex(int fd)
{
    alignas(pthread_mutex_t) unsigned char block[SharedMemory::header_size] = {};
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    if (robust_futexes())
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(reinterpret_cast<pthread_mutex_t*>(block), &attr);
    pthread_mutexattr_destroy(&attr);
    return pwrite(fd, block, sizeof block, 0) == static_cast<ssize_t>(sizeof block);
}

// A descriptor closed when it goes out of scope.
struct Descriptor {
    int fd;
    ~Descriptor() { ::close(fd); }
};

uint64_t length_of(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Makes the object at least `length` bytes long with every page allocated:
// an object only ftruncate()d gets its pages on first touch, and a full
// /dev/shm then kills the writer with SIGBUS. Never shrinks.
bool allocate(int fd, uint64_t length)
{
    return posix_fallocate(fd, 0, static_cast<off_t>(length)) == 0;
}

// Whether `name` now opens another object than `fd` (an open and two fstat).
// False when the name cannot be opened.
bool names_another(const std::string& name, int fd)
{
    const int named = shm_open(name.c_str(), O_RDONLY, 0);
    if (named == -1)
        return false;
    struct stat now, mine;
    const bool other = fstat(named, &now) == 0 &&
                       (fd == -1 || fstat(fd, &mine) != 0 || now.st_ino != mine.st_ino ||
                        now.st_dev != mine.st_dev);
    ::close(named);
    return other;
}

} // namespace

SharedMemory::SharedMemory(const std::string& name_, size_t capacity, bool create_, mode_t mode_)
    : name(name_), size(total_size(capacity)), fd(-1), addr(nullptr), mutex(nullptr),
      owner(create_), mode(mode_)
{
    if (owner)
        create();
    else
        follow(capacity);
}

SharedMemory::~SharedMemory()
{
    close();
}

void SharedMemory::create()
{
    if (owner && named()) {
        unmap();
    } else {
        release();
        owner = false;
        fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, mode ? 0 : 0666);
        owner = fd != -1;
        if (fd == -1 && errno == EEXIST)
            fd = shm_open(name.c_str(), O_RDWR, 0666);
        if (fd == -1) {
            perror("shm_open");
            throw std::runtime_error("Failed to create shared memory: " + name);
        }
    }
    attach();
}

void SharedMemory::attach()
{
    // A half-made segment of ours is removed again, under the name we gave it.
    auto fail = [this](const std::string& what) {
        release();
        if (owner)
            shm_unlink(name.c_str());
        throw std::runtime_error(what);
    };
    if (owner && length_of(fd) < header_size &&
        ((mode && fchmod(fd, mode) != 0) || !write_mutex(fd)))
        fail("Failed to create shared memory: " + name);
    // Another creator is between its O_EXCL open and its mutex write.
    for (int i = 0; !owner && length_of(fd) < header_size; ++i) {
        if (i == 1000) {
            replace_abandoned();
            return;
        }
        usleep(1000);
    }
    // Grow, never shrink, under the mutex: a peer that maps the segment
    // while another grows it either sees the old length or the new one.
    void* head = mmap(nullptr, header_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (head == MAP_FAILED)
        fail("Failed to map shared memory");
    bool sized = true;
    try {
        SegmentLock lock(static_cast<pthread_mutex_t*>(head));
        sized = allocate(fd, size);
    } catch (...) {
        munmap(head, header_size);
        release();
        throw;
    }
    munmap(head, header_size);
    if (!sized)
        fail("Failed to set size of shared memory");
    if (!remap(size))
        fail("Failed to map shared memory");
}

void SharedMemory::replace_abandoned()
{
    // A creator that has not written its 48 bytes within a second died
    // between its open and its write: its empty object would stop every later
    // sender. The first waiter to lock the dead object removes its name (when
    // it still names that object and it is still short) and creates the
    // segment anew while holding that lock; waiters after it find the name
    // replaced and attach to the new segment. Another user's object may not
    // be ours to remove.
    if (flock(fd, LOCK_EX) != 0 || (!names_another(name, fd) && length_of(fd) < header_size &&
                                    shm_unlink(name.c_str()) != 0 && errno != ENOENT)) {
        release();
        throw std::runtime_error("Failed to create shared memory: " + name);
    }
    const Descriptor dead{fd};  // open, and so locked, until create() is done
    fd = -1;
    create();
}

bool SharedMemory::named() const
{
    struct stat st;
    return fd != -1 && fstat(fd, &st) == 0 && st.st_nlink > 0;
}

bool SharedMemory::remap(uint64_t length)
{
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED)
        return false;
    unmap();
    addr = p;
    mutex = static_cast<pthread_mutex_t*>(p);
    size = length;
    return true;
}

bool SharedMemory::reserve(size_t capacity)
{
    const uint64_t wanted = std::max(size, total_size(capacity));
    struct stat st;
    if (fd == -1 || fstat(fd, &st) != 0 || st.st_nlink == 0 ||
        static_cast<uint64_t>(st.st_size) < size) {
        unmap();
        size = wanted;
        create();
        return true;
    }
    if (wanted == size)
        return true;
    bool grown;
    {
        SegmentLock lock(mutex);
        grown = allocate(fd, wanted);
    }
    return grown && remap(wanted);
}

bool SharedMemory::follow(size_t capacity)
{
    const uint64_t wanted = total_size(capacity);
    struct stat st;
    const bool known = fd != -1 && fstat(fd, &st) == 0;
    if (known && st.st_nlink > 0 && static_cast<uint64_t>(st.st_size) >= size) {
        if (wanted <= size)
            return true;
        // The same object, grown by a sender: map it further.
        return static_cast<uint64_t>(st.st_size) >= wanted && remap(wanted);
    }
    // Unlinked: the name, if any, is another process's object now.
    if (known && st.st_nlink == 0)
        owner = false;
    release();
    size = wanted;
    fd = shm_open(name.c_str(), O_RDWR, 0666);
    // A segment shorter than the mapping would fault (SIGBUS) on access past
    // its end, and one shorter than 48 bytes has no mutex yet: such a
    // segment counts as missing.
    if (fd != -1 && (length_of(fd) < size || !remap(size)))
        release();
    return addr != nullptr;
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

void SharedMemory::close()
{
    // An object that lost its name may see the name reused by a new creator.
    const bool unlink = owner && named();
    release();
    if (unlink)
        shm_unlink(name.c_str());
}

void SharedMemory::unmap()
{
    if (addr)
        munmap(addr, size);
    addr = nullptr;
    mutex = nullptr;
}

void SharedMemory::release()
{
    unmap();
    if (fd != -1)
        ::close(fd);
    fd = -1;
}

} // namespace bMSG
