// A private redis-server for one test: Unix socket in a temp dir, a free TCP port on 127.0.0.1; by pid.
#ifndef BMSG_TEST_REDIS_SERVER_H
#define BMSG_TEST_REDIS_SERVER_H

#include "child.h"

#include <functional>

namespace bmsg_test {

class RedisServer {
public:
    // Waits until it answers, aborts when it cannot; `config` overrides the harness's arguments.
    explicit RedisServer(std::vector<std::string> config = {});
    ~RedisServer();
    void stop(int signal = 9);  // kills and reaps it
    void restart();             // on the same port and socket
    pid_t pid() const { return process_.pid(); }
    uint16_t port() const { return port_; }
    const std::string& socket() const { return socket_; }
    const std::string& dir() const { return dir_; }

private:
    bool start();
    std::vector<std::string> config_;
    std::string dir_, socket_;
    uint16_t port_ = 0;
    Child process_;
};

// A TCP port on 127.0.0.1 that nothing listens on right now.
uint16_t free_port();

struct Captured {
    int status;  // what fn returned
    std::string out, err;
};
// Runs fn in this process with stdout and stderr caught.
Captured run_captured(const std::function<int()>& fn);

// One command on a fresh connection; the reply as text ("(nil)", integers, elements joined by '\n').
std::string redis_raw(const RedisServer& server, const char* format, ...);

// Polls `done` every 10 ms for up to 10 s; whether it came true.
bool wait_until(const std::function<bool()>& done);

// Waits until `channel` has `n` subscribers on the server.
bool wait_subscribers(const RedisServer& server, const char* channel, int n);

} // namespace bmsg_test

#endif
