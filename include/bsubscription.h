// bMSG::Subscription: a subscription to one or more channels that runs on
// its own connection and thread and can be stopped, unlike
// Messager::subscribe, which blocks its caller for ever.
#ifndef BMSG_BSUBSCRIPTION_H
#define BMSG_BSUBSCRIPTION_H

#include "bmessager.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace bMSG {

class BMSG_API Subscription {
public:
    // Connects once to the server (`address` as for Messager: null or empty
    // means "127.0.0.1", a leading '/' a Unix socket), sends SUBSCRIBE with
    // every channel as its own argument and waits for the server to confirm
    // it (blocking), then starts the thread that hands each message to
    // `callback` (channel the message came on, payload, its length, null).
    // Messages published after the constructor returns are delivered. Never
    // throws for a server that cannot be reached: status() tells. With
    // `user` or `password` given, the connection logs in first as
    // Messager's login constructor does (a refused AUTH is reported once and
    // gives status() -1).
    Subscription(const char* address, uint16_t port, const std::vector<std::string>& channels,
                 MessageCallback callback, const char* user = nullptr,
                 const char* password = nullptr);

    // The same on the server `bus` talks to, with the login of `bus`.
    Subscription(const Messager& bus, const std::vector<std::string>& channels,
                 MessageCallback callback);

    // stop().
    ~Subscription();

    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // 0 when subscribed, -1 no connection could be made, -3 SUBSCRIBE got
    // no confirmation (no channel, or the server refused it).
    int status() const { return status_; }

    // The server's text when it refused the AUTH (status() -1) or the
    // SUBSCRIBE (-3), for example "NOPERM ..."; empty otherwise.
    const std::string& last_error() const { return error_; }

    // Whether the thread is still receiving: false after stop(), and after
    // the connection failed (server gone), which ends the thread by itself.
    bool running() const { return running_; }

    // Ends the subscription: wakes the thread at once (it need not wait for
    // a message), waits for a callback in progress to return, joins the
    // thread and closes the connection. No callback runs after it returns.
    // Safe to call more than once. Must not be called from the callback.
    void stop();

private:
    Subscription(const std::string& address, uint16_t port, const Login& login,
                 const std::vector<std::string>& channels, MessageCallback callback);
    void receive();

    MessageCallback callback_;
    redisContext* context_ = nullptr;
    int status_ = -1;
    std::string error_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace bMSG

#endif
