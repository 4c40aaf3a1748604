#include "fake_redis.h"

#include <hiredis/hiredis.h>
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
    thread_ = std::thread([this] { serve(); });
}

FakeRedis::~FakeRedis()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        shutdown(conn_, SHUT_RDWR);
    }
    shutdown(listen_fd_, SHUT_RDWR);  // ends the accept() of serve()
    thread_.join();
    for (int fd : held_)
        close(fd);
    close(listen_fd_);
    unlink(socket_.c_str());
    rmdir(dir_.c_str());
}

void FakeRedis::answer_each(std::vector<std::string> replies, bool close_after)
{
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_.push_back({std::move(replies), close_after});
}

void FakeRedis::wait_idle()
{
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return scripts_.empty() && !busy_; });
}

std::vector<std::vector<std::string>> FakeRedis::take_commands()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(commands_);
}

void FakeRedis::serve()
{
    for (int fd; (fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::unique_lock<std::mutex> lock(mutex_);
        Script script{{}, true};
        if (!scripts_.empty()) {
            script = std::move(scripts_.front());
            scripts_.pop_front();
        }
        busy_ = true;
        if (stopping_)
            shutdown(fd, SHUT_RDWR);
        conn_ = fd;
        lock.unlock();
        serve_connection(fd, script);
        lock.lock();
        script.close_after ? close(fd) : (held_.push_back(fd), 0);
        conn_ = -1;
        busy_ = false;
        idle_.notify_all();
    }
}

// hiredis sends a command as an array of bulk strings: its reply reader parses it.
void FakeRedis::serve_connection(int fd, const Script& script)
{
    redisReader* reader = redisReaderCreate();
    for (const std::string& reply : script.replies) {
        void* got = nullptr;
        char chunk[65536];
        for (ssize_t n = 1; redisReaderGetReply(reader, &got) == REDIS_OK && !got && n > 0;)
            if ((n = read(fd, chunk, sizeof chunk)) > 0)
                redisReaderFeed(reader, chunk, static_cast<size_t>(n));
        auto* command = static_cast<redisReply*>(got);
        if (!command)
            break;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_.emplace_back();
            for (size_t i = 0; i < command->elements; ++i)
                commands_.back().emplace_back(command->element[i]->str, command->element[i]->len);
        }
        freeReplyObject(command);
        ssize_t sent = 0;
        for (size_t done = 0; done < reply.size() && sent >= 0; done += sent)
            sent = send(fd, &reply[done], reply.size() - done, MSG_NOSIGNAL);
    }
    redisReaderFree(reader);
}

} // namespace bmsg_test
