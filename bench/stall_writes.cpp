// Preloaded by bench/record_ring into a recorder: while the file named by
// BENCH_STALL exists, every write to a regular file waits, as on a disk that
// has stopped taking writes. Sockets, pipes and terminals are left alone.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace {

void wait_while_stalled(int fd)
{
    const char* flag = getenv("BENCH_STALL");
    struct stat st;
    if (!flag || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return;
    while (access(flag, F_OK) == 0)
        usleep(100000);
}

template <typename Fn>
Fn real(const char* name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

ssize_t write(int fd, const void* buffer, size_t size)
{
    static const auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
    wait_while_stalled(fd);
    return next(fd, buffer, size);
}

ssize_t pwrite(int fd, const void* buffer, size_t size, off_t offset)
{
    static const auto next = real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
    wait_while_stalled(fd);
    return next(fd, buffer, size, offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t offset)
{
    static const auto next = real<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    wait_while_stalled(fd);
    return next(fd, buffer, size, offset);
}

} // extern "C"
