// A scripted Redis-protocol peer on a Unix socket, for replies a real server never sends: each
// connection gets the next queued bytes (or none) at once, then the end of the stream; commands are never read.
#ifndef BMSG_TEST_FAKE_REDIS_H
#define BMSG_TEST_FAKE_REDIS_H

#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace bmsg_test {

class FakeRedis {
public:
    FakeRedis();  // aborts when it cannot listen
    ~FakeRedis();
    void reply(std::string bytes);  // queued for the next connection
    const std::string& socket() const { return socket_; }

private:
    std::string dir_, socket_;
    int listen_fd_ = -1, held_ = -1;
    std::mutex mutex_;
    std::deque<std::string> replies_;
    std::thread thread_;
};

} // namespace bmsg_test

#endif
