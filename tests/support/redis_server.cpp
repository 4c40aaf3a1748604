#include "redis_server.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace bmsg_test {

uint16_t free_port()
{
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        perror("free_port");
        abort();
    }
    ::close(s);
    return ntohs(a.sin_port);
}

RedisServer::RedisServer()
{
    char tmpl[] = "/tmp/bmsg-redis-XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        abort();
    }
    dir_ = tmpl;
    socket_ = dir_ + "/redis.sock";
    // The port is free when probed but may be taken before the server binds
    // it: try a few.
    for (int i = 0; i < 5; ++i) {
        port_ = free_port();
        if (start())
            return;
    }
    fprintf(stderr, "cannot start redis-server (see %s/redis.log)\n", dir_.c_str());
    abort();
}

RedisServer::~RedisServer()
{
    stop();
    unlink(socket_.c_str());
    unlink((dir_ + "/redis.log").c_str());
    rmdir(dir_.c_str());
}

bool RedisServer::start()
{
    const std::string port = std::to_string(port_);
    const std::string log = dir_ + "/redis.log";
    process_ = spawn_native("redis-server",
                            {"--port", port, "--bind", "127.0.0.1", "--unixsocket", socket_,
                             "--unixsocketperm", "700", "--save", "", "--appendonly", "no",
                             "--dir", dir_, "--logfile", log, "--daemonize", "no",
                             "--protected-mode", "no"});
    pid_ = process_.pid();
    for (int i = 0; i < 500; ++i) {
        if (process_.ended()) {
            pid_ = -1;
            process_ = Child();
            return false;
        }
        redisContext* c = redisConnect("127.0.0.1", port_);
        bool up = c && !c->err;
        if (up) {
            auto* r = static_cast<redisReply*>(redisCommand(c, "PING"));
            up = r && r->type == REDIS_REPLY_STATUS;
            freeReplyObject(r);
        }
        redisFree(c);
        if (up && access(socket_.c_str(), F_OK) == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop();
    return false;
}

void RedisServer::stop(int signal)
{
    if (pid_ <= 0)
        return;
    process_.kill(signal);
    process_.wait();
    process_ = Child();
    pid_ = -1;
}

void RedisServer::restart()
{
    stop();
    unlink(socket_.c_str());
    if (!start()) {
        fprintf(stderr, "cannot restart redis-server on port %u\n", port_);
        abort();
    }
}

Captured run_captured(const std::function<int()>& fn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Captured c;
    c.status = fn();
    fflush(stdout);
    fflush(stderr);
    c.out = testing::internal::GetCapturedStdout();
    c.err = testing::internal::GetCapturedStderr();
    return c;
}

static std::string reply_text(const redisReply* r)
{
    switch (r->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
        return std::string(r->str, r->len);
    case REDIS_REPLY_INTEGER:
        return std::to_string(r->integer);
    case REDIS_REPLY_ARRAY: {
        std::string s;
        for (size_t i = 0; i < r->elements; ++i)
            s += (i ? "\n" : "") + reply_text(r->element[i]);
        return s;
    }
    default:
        return "(nil)";
    }
}

std::string redis_raw(const RedisServer& server, const char* format, ...)
{
    redisContext* c = redisConnectUnix(server.socket().c_str());
    if (!c || c->err) {
        redisFree(c);
        return "(no connection)";
    }
    va_list ap;
    va_start(ap, format);
    auto* r = static_cast<redisReply*>(redisvCommand(c, format, ap));
    va_end(ap);
    std::string text = r ? reply_text(r) : "(no reply)";
    freeReplyObject(r);
    redisFree(c);
    return text;
}

std::string thrown_by(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

bool wait_until(const std::function<bool()>& done)
{
    for (int i = 0; i < 1000; ++i) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool wait_subscribers(const RedisServer& server, const char* channel, int n)
{
    const std::string want = std::string(channel) + "\n" + std::to_string(n);
    return wait_until([&] { return redis_raw(server, "PUBSUB NUMSUB %s", channel) == want; });
}

} // namespace bmsg_test
