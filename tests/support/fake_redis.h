// A scripted Redis-protocol peer for replies a real server never sends, on a
// Unix socket, serving one connection at a time on its own thread: each
// connection takes the next queued script, reads one command per reply and
// answers with the reply's raw bytes, then closes (or holds the connection
// until the peer is destroyed). A connection finding no script is closed.
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
    FakeRedis();   // aborts when it cannot listen
    ~FakeRedis();  // cuts a connection in progress, closes all
    // Queues the next connection's script; with no replies it reads nothing.
    void answer_each(std::vector<std::string> replies, bool close_after = true);
    void answer(std::string reply, bool close_after = true) { answer_each({reply}, close_after); }
    void wait_idle();  // until every queued script has been served
    // The commands read so far (each before its answer); empties the record.
    std::vector<std::vector<std::string>> take_commands();
    const std::string& socket() const { return socket_; }

private:
    struct Script {
        std::vector<std::string> replies;
        bool close_after;
    };
    void serve();
    void serve_connection(int fd, const Script& script);

    std::string dir_, socket_;
    int listen_fd_ = -1, conn_ = -1;
    bool stopping_ = false, busy_ = false;
    std::vector<int> held_;
    std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<Script> scripts_;
    std::vector<std::vector<std::string>> commands_;
    std::thread thread_;
};

} // namespace bmsg_test

#endif
