// Subscription: SUBSCRIBE on a connection of its own, read on a thread of
// its own. stop() shuts the socket down, which wakes the thread blocked in
// its read at once; then the thread is joined and the connection freed.
#include "bsubscription.h"

#include "bmsg_internal.h"

#include <sys/socket.h>

namespace bMSG {

Subscription::Subscription(const char* address, uint16_t port,
                           const std::vector<std::string>& channels, MessageCallback callback,
                           const char* user, const char* password)
    : Subscription(address && *address ? address : "127.0.0.1", port, Login(user, password),
                   channels, std::move(callback))
{
}

Subscription::Subscription(const Messager& bus, const std::vector<std::string>& channels,
                           MessageCallback callback)
    : Subscription(bus.server_address(), bus.server_port(), bus.login(), channels,
                   std::move(callback))
{
}

Subscription::Subscription(const std::string& address, uint16_t port, const Login& login,
                           const std::vector<std::string>& channels, MessageCallback callback)
    : callback_(std::move(callback))
{
    Context c;
    if (open_connection(address, port, login, c, &error_) != Opened::ok)
        return;
    context_ = c.release();
    status_ = -3;
    if (channels.empty())
        return;
    std::vector<const char*> argv{"SUBSCRIBE"};
    std::vector<size_t> lengths{9};
    for (const std::string& ch : channels) {
        argv.push_back(ch.c_str());
        lengths.push_back(ch.size());
    }
    Reply r = command_argv(context_, static_cast<int>(argv.size()), argv.data(), lengths.data());
    if (r && r->type == REDIS_REPLY_ERROR)
        error_.assign(r->str, r->len);
    if (!r || r->type != REDIS_REPLY_ARRAY)
        return;
    status_ = 0;
    running_ = true;
    thread_ = std::thread(&Subscription::receive, this);
}

Subscription::~Subscription()
{
    stop();
}

void Subscription::receive()
{
    while (!stopping_) {
        void* raw = nullptr;
        if (redisGetReply(context_, &raw) != REDIS_OK)
            break;
        Reply r = take_reply(raw);
        if (r && is_message(r.get()) && !stopping_)
            callback_(r->element[1]->str, r->element[2]->str, r->element[2]->len, nullptr);
    }
    running_ = false;
}

void Subscription::stop()
{
    stopping_ = true;
    if (thread_.joinable()) {
        shutdown(context_->fd, SHUT_RDWR);
        thread_.join();
    }
    if (context_) {
        redisFree(context_);
        context_ = nullptr;
    }
    running_ = false;
}

} // namespace bMSG
