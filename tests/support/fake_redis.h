// A scripted peer that speaks the Redis protocol, for replies a real server
// never sends (tests and fuzz targets). It listens on a Unix socket in a
// temporary directory and serves one connection at a time on its own thread:
// each accepted connection takes the next queued script; for each reply of
// the script the peer reads one command and answers with the reply's raw
// bytes, then closes the connection (or holds it open until the peer is
// destroyed). A connection that finds no script is closed at once.
#ifndef BMSG_TEST_FAKE_REDIS_H
#define BMSG_TEST_FAKE_REDIS_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bmsg_test {

class FakeRedis {
public:
    // Starts listening; aborts the program when it cannot.
    FakeRedis();
    // Stops serving (interrupting a connection in progress), closes every
    // connection and removes the socket and its directory.
    ~FakeRedis();
    FakeRedis(const FakeRedis&) = delete;
    FakeRedis& operator=(const FakeRedis&) = delete;

    // Queues the script of the next connection: one reply per command. With
    // no replies the peer accepts and drops (or holds) the connection
    // without reading.
    void answer_each(std::vector<std::string> replies, bool close_after = true);
    // A script of one reply.
    void answer(std::string reply, bool close_after = true);

    // Blocks until every queued script has been served.
    void wait_idle();

    // The commands read so far (each as its arguments), oldest first; the
    // record is emptied. A command is recorded before its answer is sent.
    std::vector<std::vector<std::string>> take_commands();

    const std::string& socket() const { return socket_; }

private:
    struct Script {
        std::vector<std::string> replies;
        bool close_after;
    };

    void serve();
    void serve_connection(int fd, const Script& script);

    std::string dir_;
    std::string socket_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};  // written to on destruction; ends every poll
    std::vector<int> held_;   // connections kept open, closed on destruction

    std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<Script> scripts_;
    bool busy_ = false;
    std::vector<std::vector<std::string>> commands_;

    std::thread thread_;
};

} // namespace bmsg_test

#endif
