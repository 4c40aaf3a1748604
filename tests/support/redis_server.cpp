#include "redis_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <cstdarg>
#include <filesystem>
#include <thread>

namespace bmsg_test {

uint16_t free_port()
{
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    bind(s, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

RedisServer::RedisServer(std::vector<std::string> config) : config_(std::move(config))
{
    char dir[] = "/tmp/bmsg-redis-XXXXXX";
    dir_ = mkdtemp(dir) ? dir : "/nonexistent";
    socket_ = dir_ + "/redis.sock";
    // The probed port may be taken before the server binds it: try a few.
    for (int i = 0; i < 5; ++i)
        if ((port_ = free_port()) && start())
            return;
    fprintf(stderr, "cannot start redis-server (see %s/redis.log)\n", dir_.c_str());
    abort();
}

RedisServer::~RedisServer()
{
    stop();
    std::error_code ignored;  // tests leave their files here too
    std::filesystem::remove_all(dir_, ignored);
}

bool RedisServer::start()
{
    std::vector<std::string> args{"--port", std::to_string(port_), "--bind", "127.0.0.1",
                                  "--unixsocket", socket_, "--unixsocketperm", "700", "--save", "",
                                  "--appendonly", "no", "--dir", dir_, "--logfile",
                                  dir_ + "/redis.log", "--protected-mode", "no"};
    args.insert(args.end(), config_.begin(), config_.end());
    process_ = spawn_native("redis-server", args);
    // Up once it answers on its socket, which it opens after the TCP port.
    if (wait_until([&] {  // NOAUTH: its default user is off
            const std::string pong = access(socket_.c_str(), F_OK) == 0 ? redis_raw(*this, "PING") : "";
            return process_.ended() || pong == "PONG" || pong.rfind("NOAUTH", 0) == 0;
        }) && !process_.ended())
        return true;
    stop();
    return false;
}

void RedisServer::stop(int signal)
{
    process_.kill(signal), process_.wait();
    process_ = Child();
}

void RedisServer::restart()
{
    stop(), unlink(socket_.c_str());
    if (!start())
        abort();
}

Captured run_captured(const std::function<int()>& fn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = fn();
    fflush(nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

static std::string text_of(const redisReply* r)
{
    std::string s = r->type == REDIS_REPLY_INTEGER ? std::to_string(r->integer) : r->type == REDIS_REPLY_NIL ? "(nil)" : "";
    for (size_t i = 0; i < r->elements; ++i)
        s += (i ? "\n" : "") + text_of(r->element[i]);
    return r->str ? std::string(r->str, r->len) : s;
}

std::string redis_raw(const RedisServer& server, const char* format, ...)
{
    redisContext* c = redisConnectUnix(server.socket().c_str());
    va_list ap;
    va_start(ap, format);
    auto* r = c && !c->err ? static_cast<redisReply*>(redisvCommand(c, format, ap)) : nullptr;
    va_end(ap);
    const std::string text = r ? text_of(r) : "(no reply)";
    freeReplyObject(r);
    redisFree(c);
    return text;
}

bool wait_until(const std::function<bool()>& done)
{
    for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (done())
            return true;
    return false;
}

bool wait_subscribers(const RedisServer& server, const char* channel, int n)
{
    const std::string want = channel + ("\n" + std::to_string(n));
    return wait_until([&] { return redis_raw(server, "PUBSUB NUMSUB %s", channel) == want; });
}

} // namespace bmsg_test
