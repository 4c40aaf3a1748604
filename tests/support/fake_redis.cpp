#include "fake_redis.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bmsg_test {

namespace {

[[noreturn]] void die(const char* what)
{
    perror(what);
    abort();
}

// Buffered reading of one connection that gives up when the peer is told to
// stop (its wake pipe becomes readable) or the client goes away.
class Reader {
public:
    Reader(int fd, int wake) : fd_(fd), wake_(wake) {}

    // One protocol line without its "\r\n".
    bool line(std::string& out)
    {
        size_t end;
        while ((end = in_.find("\r\n", pos_)) == std::string::npos)
            if (!more())
                return false;
        out.assign(in_, pos_, end - pos_);
        pos_ = end + 2;
        return true;
    }

    bool bytes(size_t n, std::string& out)
    {
        while (in_.size() - pos_ < n)
            if (!more())
                return false;
        out.assign(in_, pos_, n);
        pos_ += n;
        return true;
    }

private:
    bool more()
    {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
        for (;;) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return false;
            }
            if (fds[1].revents)
                return false;
            char chunk[65536];
            ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            in_.erase(0, pos_);
            pos_ = 0;
            in_.append(chunk, static_cast<size_t>(n));
            return true;
        }
    }

    int fd_;
    int wake_;
    std::string in_;
    size_t pos_ = 0;
};

// Parses a non-negative decimal count after its type character.
bool count_of(const std::string& line, char type, size_t& n)
{
    if (line.size() < 2 || line[0] != type)
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(line.c_str() + 1, &end, 10);
    if (errno || *end || line[1] == '-')
        return false;
    n = static_cast<size_t>(v);
    return true;
}

// One command as hiredis sends it: "*<n>" and n bulk strings "$<len>".
bool read_command(Reader& in, std::vector<std::string>& args)
{
    std::string line;
    size_t n;
    if (!in.line(line) || !count_of(line, '*', n))
        return false;
    args.clear();
    for (size_t i = 0; i < n; ++i) {
        size_t len;
        std::string arg, crlf;
        if (!in.line(line) || !count_of(line, '$', len) || !in.bytes(len, arg) ||
            !in.bytes(2, crlf) || crlf != "\r\n")
            return false;
        args.push_back(std::move(arg));
    }
    return true;
}

void send_all(int fd, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;  // the client went away; nothing to tell it
        done += static_cast<size_t>(n);
    }
}

} // namespace

FakeRedis::FakeRedis()
{
    char tmpl[] = "/tmp/bmsg-fake-XXXXXX";
    if (!mkdtemp(tmpl))
        die("mkdtemp");
    dir_ = tmpl;
    socket_ = dir_ + "/redis.sock";

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket_.c_str());
    listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 64) != 0)
        die("fake redis socket");
    if (pipe2(wake_, O_CLOEXEC) != 0)
        die("pipe2");
    thread_ = std::thread([this] { serve(); });
}

FakeRedis::~FakeRedis()
{
    (void)!::write(wake_[1], "x", 1);
    thread_.join();
    for (int fd : held_)
        ::close(fd);
    ::close(listen_fd_);
    ::close(wake_[0]);
    ::close(wake_[1]);
    unlink(socket_.c_str());
    rmdir(dir_.c_str());
}

void FakeRedis::answer_each(std::vector<std::string> replies, bool close_after)
{
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_.push_back({std::move(replies), close_after});
}

void FakeRedis::answer(std::string reply, bool close_after)
{
    answer_each({std::move(reply)}, close_after);
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
    for (;;) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            die("poll");
        if (fds[1].revents)
            return;
        if (!fds[0].revents)
            continue;
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        Script script{{}, true};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!scripts_.empty()) {
                script = std::move(scripts_.front());
                scripts_.pop_front();
                busy_ = true;
            }
        }
        serve_connection(fd, script);
        if (script.close_after)
            ::close(fd);
        else
            held_.push_back(fd);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            busy_ = false;
        }
        idle_.notify_all();
    }
}

void FakeRedis::serve_connection(int fd, const Script& script)
{
    Reader in(fd, wake_[0]);
    for (const std::string& reply : script.replies) {
        std::vector<std::string> args;
        if (!read_command(in, args))
            return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_.push_back(std::move(args));
        }
        send_all(fd, reply);
    }
}

} // namespace bmsg_test
