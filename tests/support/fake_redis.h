// A scripted Redis-protocol peer for replies a real server never sends, on a
// Unix socket: each connection gets the next queued bytes (none when the
// queue is empty) written at once, then the end of the stream, so the
// client's commands find them waiting; the commands are never read.
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
