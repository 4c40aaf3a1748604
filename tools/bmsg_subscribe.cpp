// bmsg subscribe: one line per message on any of the channels.
#include "bmsg_tool.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace bmsg_tool {

namespace {

std::mutex output;
std::atomic<long> printed{0};

// Messager::subscribe blocks on its connection for good, so each channel
// gets a thread and a connection; the first to see the end stops the process.
void listen(const Options& o, const std::string& channel, long count)
{
    auto bus = open_bus(o);
    if (!bus)
        _exit(1);
    bus->subscribe(channel.c_str(), [count](const char* ch, const char* payload, size_t len, void*) {
        std::lock_guard<std::mutex> lock(output);
        printf("%s %s %.*s\n", now_text().c_str(), ch, static_cast<int>(len), payload);
        fflush(stdout);
        if (count > 0 && ++printed >= count)
            _exit(0);
    });
    std::lock_guard<std::mutex> lock(output);
    _exit(fail("lost the subscription to " + channel));
}

} // namespace

void add_subscribe_command(CLI::App& app, Action& action)
{
    static std::vector<std::string> channels;
    static long count = 0;
    auto* sub = app.add_subcommand(
        "subscribe", "Print each message on the CHANNELs as \"time channel payload\" until "
                     "Ctrl-C or COUNT messages");
    sub->add_option("CHANNEL", channels)->required();
    sub->add_option("-n,--count", count, "Stop after COUNT messages (default 0: never)")
        ->type_name("COUNT")
        ->check(CLI::NonNegativeNumber);
    sub->callback([&] {
        action = [](const Options& o) {
            std::vector<std::thread> threads;
            for (const std::string& channel : channels)
                threads.emplace_back(listen, std::cref(o), std::cref(channel), count);
            for (std::thread& t : threads)
                t.join();
            return 0;
        };
    });
}

} // namespace bmsg_tool
