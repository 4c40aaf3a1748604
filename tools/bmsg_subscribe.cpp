// bmsg subscribe: one line per message on any of the channels.
#include "bmsg_tool.h"
#include "bsubscription.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

namespace bmsg_tool {

namespace {

std::vector<std::string> channels;
long count = 0;

// One connection for all the channels; the subscription's thread prints,
// this one waits for the last message or a lost connection.
int subscribe(const Options& o)
{
    auto bus = open_bus(o);
    if (!bus)
        return 1;
    std::mutex lock;  // guards printed
    std::condition_variable changed;
    long printed = 0;
    bMSG::Subscription sub(*bus, channels, [&](const char* ch, const char* payload, size_t len, void*) {
        std::lock_guard<std::mutex> guard(lock);
        if (count > 0 && printed >= count)
            return;
        printf("%s %s %s\n", now_text().c_str(), escaped(ch, strlen(ch)).c_str(),
               escaped(payload, len).c_str());
        fflush(stdout);
        ++printed;
        changed.notify_one();
    });
    if (sub.status() != 0)
        return fail(why_not_subscribed(sub));
    std::unique_lock<std::mutex> guard(lock);
    // running() has no wake-up of its own: looked at ten times a second.
    while (sub.running() && (count == 0 || printed < count))
        changed.wait_for(guard, std::chrono::milliseconds(100));
    const bool done = count > 0 && printed >= count;
    guard.unlock();  // stop() waits for a callback, which takes the lock
    sub.stop();
    return done ? 0 : fail("lost the subscription");
}

} // namespace

void add_subscribe_command(CLI::App& app, Action& action)
{
    auto* sub = app.add_subcommand(
        "subscribe", "Print each message on the CHANNELs as \"time channel payload\" until "
                     "Ctrl-C or COUNT messages; newlines, backslashes and bytes that are not "
                     "UTF-8 text as C escapes (\\n, \\\\, \\xNN), so a message is one line");
    sub->add_option("CHANNEL", channels)->required();
    sub->add_option("-n,--count", count, "Stop after COUNT messages (default 0: never)")
        ->type_name("COUNT")
        ->check(CLI::NonNegativeNumber);
    sub->callback([&] { action = subscribe; });
}

} // namespace bmsg_tool
