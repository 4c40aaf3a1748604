// Named POSIX shared-memory segment with a process-shared mutex in its first
// 48 bytes. Layout of a segment of capacity C (total length C + 48):
//
//   offset 0   48 bytes  pthread_mutex_t, initialised by the creator
//   offset 48  C bytes   payload; payload offset 0 is segment offset 48
//
// The 48-byte header is fixed so that peers on every platform agree on the
// payload offset, whatever the size of the local pthread_mutex_t.
//
// Life of a segment. Exactly one process creates the object (O_CREAT|O_EXCL)
// and writes the first 48 bytes, an initialised unlocked mutex, with one
// write(): an object shorter than 48 bytes is one whose creator has not got
// that far, and nobody touches its mutex. Every other process attaches: it
// never initialises the mutex again, never shrinks the object, and grows it
// (posix_fallocate, every page allocated) only while holding the mutex.
// Only the creator unlinks the name, and only while that name still names
// its object.
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

    // With create true: create() (below); throws std::runtime_error on
    // failure. With create false: opens an existing segment that holds at
    // least `size` payload bytes and never throws for a missing or shorter
    // one; the object is then invalid (addr null), and prints nothing.
    // `size` is the payload capacity; the mapping is size + 48 bytes.
    // `mode` 0 creates the object with mode 0666 less the umask; any other
    // value is given to an object this call creates exactly (umask not
    // applied, set before anyone else can open it); it is ignored when the
    // object exists.
    SharedMemory(const std::string& name, size_t size, bool create, mode_t mode = 0);

    // Unmaps, closes, and unlinks the name when this object created it.
    ~SharedMemory();

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Creates the segment and initialises its mutex when `name` is free
    // (owner becomes true); otherwise attaches to the segment that exists
    // (owner false): its mutex is used as its creator made it (robust or
    // plain), and the object is grown to size, under that mutex, when it is
    // shorter, never shrunk; its pages are allocated then. An object this
    // one created that still has its name is kept (its mutex is written
    // again only when someone cut the object below 48 bytes). Waits up to about one second for a creator
    // that has not yet written the mutex; an object still shorter than 48
    // bytes after that was left by a creator that died there, and is
    // removed and created anew (by one waiter; the others attach to it).
    // Throws std::runtime_error "Failed to create shared memory: <name>",
    // "Failed to set size of shared memory" or "Failed to map shared memory";
    // a creator removes the name again on the last two.
    //
    // Departure from the first version, which re-created an existing
    // object: it truncated it to this object's size and ran
    // pthread_mutex_init on a mutex other processes might hold, and every
    // creator unlinked the name. Callers that were alone on a name see no
    // difference.
    void create();

    // For senders, before a write of `capacity` payload bytes: one fstat
    // when the mapping is current and that long. A segment that lost its
    // name or was cut is created or attached again (throws as create()
    // does); one that is too short for `capacity` is grown under the mutex,
    // its pages allocated (posix_fallocate) so that no later copy into them
    // can fault, and mapped further. False when it cannot be grown (a full
    // /dev/shm): the mapping and its content are then as they were.
    bool reserve(size_t capacity);

    // The one receiver attach, before a copy of `capacity` payload bytes:
    // opens the name on first use, and is true at once (one fstat) when the
    // mapping is current and that long. A mapping whose object lost its name
    // (its sender ended and another created the segment anew) or shrank is
    // dropped and the name opened afresh; an object that has grown is mapped
    // further. False when `capacity` bytes cannot be mapped: the object is
    // invalid (addr null) when the name could not be opened, else it keeps
    // its current mapping. Never throws. A creator that finds its object
    // without its name stops being owner.
    bool follow(size_t capacity);

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

    // Unmaps, closes the descriptor and, for the creator, unlinks the name
    // unless it already names another object. Safe to call more than once:
    // later calls do nothing.
    void close();

    std::string name;          // object name as given to shm_open ("/..." )
    uint64_t size;             // mapped length: capacity + 48
    int fd;                    // shm_open descriptor, -1 when not open
    void* addr;                // mapping base, null when invalid
    pthread_mutex_t* mutex;    // equals addr once mapped
    bool owner;                // this object created the segment

private:
    mode_t mode;               // mode for an object create() makes, 0: 0666 less umask
    bool named() const;
    bool remap(uint64_t length);
    void unmap();
    void attach();
    void replace_abandoned();
    void release();
};

} // namespace bMSG

#endif
