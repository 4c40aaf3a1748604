// Named POSIX shared-memory segment with a process-shared mutex in its first
// 48 bytes. Layout of a segment of capacity C (total length C + 48):
//
//   offset 0   48 bytes  pthread_mutex_t, initialised by the creator
//   offset 48  C bytes   payload; payload offset 0 is segment offset 48
//
// The 48-byte header is fixed so that peers on every platform agree on the
// payload offset, whatever the size of the local pthread_mutex_t.
#ifndef BMSG_BSHMEM_H
#define BMSG_BSHMEM_H

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#ifndef BMSG_API
#define BMSG_API __attribute__((visibility("default")))
#endif

namespace bMSG {

class BMSG_API SharedMemory {
public:
    // Length of the segment header that holds the mutex.
    static constexpr size_t header_size = 48;

    // With create true: creates (or reuses and resizes) the segment and
    // initialises its mutex; throws std::runtime_error on failure.
    // With create false: opens an existing segment and never throws for a
    // missing one; the object is then invalid (addr null), and prints nothing.
    // `size` is the payload capacity; the mapping is size + 48 bytes.
    SharedMemory(const std::string& name, size_t size, bool create);

    // Unmaps, closes, and unlinks the name when this object created it.
    ~SharedMemory();

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Creates or re-creates the segment and (re)initialises its mutex.
    // Throws std::runtime_error "Failed to create shared memory: <name>",
    // "Failed to set size of shared memory" or "Failed to map shared memory".
    void create();

    // Copies len bytes from data to payload offset `offset` under the mutex.
    // Throws std::runtime_error "Data size exceeds shared memory size: ..."
    // when offset + len passes the capacity; nothing is copied then.
    // Must not be called on an invalid object.
    void write(const void* data, size_t len, size_t offset);

    // Copies len bytes from payload offset `offset` to buf under the mutex.
    // Throws std::runtime_error "Read size exceeds shared memory size" when
    // offset + len passes the capacity; nothing is copied then.
    // Must not be called on an invalid object.
    void read(void* buf, size_t len, size_t offset);

    // Calls fill with a pointer to payload offset `offset`, where it may
    // write up to len bytes, while holding the mutex: other processes wait
    // for it, so a slow fill delays them. The mutex is released on every
    // exit, including an exception from fill, which propagates. Throws as
    // write() does when offset + len passes the capacity (fill not called).
    // Must not be called on an invalid object.
    void write(size_t len, size_t offset, const std::function<void(unsigned char*)>& fill);

    // Calls use with a pointer to payload offset `offset` (len bytes) while
    // holding the mutex, as the write above. Throws as read() does when
    // offset + len passes the capacity (use not called).
    void read(size_t len, size_t offset, const std::function<void(const unsigned char*)>& use);

    // Gives the object `name` exactly `mode` (umask not applied), creating
    // it empty with that mode when missing, so that a later create() reuses
    // it and never widens who may open it. Descriptors others opened before
    // keep their access. Throws std::runtime_error "Failed to set mode of
    // shared memory: <name>" (for example when another user owns it).
    static void restrict_mode(const std::string& name, mode_t mode);

    // Unmaps, closes the descriptor and, for the creator, unlinks the name.
    // Safe to call more than once: later calls do nothing.
    void close();

    std::string name;          // object name as given to shm_open ("/..." )
    uint64_t size;             // mapped length: capacity + 48
    int fd;                    // shm_open descriptor, -1 when not open
    void* addr;                // mapping base, null when invalid
    pthread_mutex_t* mutex;    // equals addr once mapped
    bool owner;                // this object created the segment

private:
    void map();
    void release();
};

} // namespace bMSG

#endif
