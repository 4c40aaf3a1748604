#include "fake_redis.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace bmsg_test {

FakeRedis::FakeRedis()
{
    char dir[] = "/tmp/bmsg-fake-XXXXXX";
    dir_ = mkdtemp(dir) ? dir : "/nonexistent";
    socket_ = dir_ + "/redis.sock";
    sockaddr_un addr{AF_UNIX, {}};
    socket_.copy(addr.sun_path, sizeof addr.sun_path - 1);
    listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) || listen(listen_fd_, 64))
        abort();
    thread_ = std::thread([this] {
        for (int fd; (fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; held_ = fd) {
            close(held_);  // only now: closing with unread commands would reset the client's reads
            std::string bytes;
            std::unique_lock<std::mutex> lock(mutex_);
            if (!replies_.empty())
                bytes = std::move(replies_.front()), replies_.pop_front();
            lock.unlock();
            for (ssize_t done = 0, n = 1; n > 0 && done < static_cast<ssize_t>(bytes.size()); done += n)
                n = send(fd, &bytes[done], bytes.size() - done, MSG_NOSIGNAL);
            shutdown(fd, SHUT_WR);
        }
    });
}

FakeRedis::~FakeRedis()
{
    shutdown(listen_fd_, SHUT_RDWR);  // ends the accept() of the thread
    thread_.join();
    close(held_);
    close(listen_fd_);
    unlink(socket_.c_str());
    rmdir(dir_.c_str());
}

void FakeRedis::reply(std::string bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back(std::move(bytes));
}

} // namespace bmsg_test
