// bmsg watch: the lengths of the named lists and the sample lists, and the
// last status announcements, refreshed every INTERVAL seconds.
#include "bmsg_tool.h"
#include "bsubscription.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace bmsg_tool {

namespace {

constexpr size_t status_kept = 5;
// SCAN ... COUNT 1000 answers with about a thousand keys (a few more when a
// hash bucket holds several), beyond the bound of 64 elements the library
// sets on its connections; 65536 still caps what one hostile array header
// makes hiredis 1.x reserve at 512 KiB.
constexpr unsigned scan_reply_elements = 1u << 16;

std::mutex status_lock;
std::deque<std::string> statuses;

void keep_status(const char*, const char* payload, size_t len, void*)
{
    std::lock_guard<std::mutex> lock(status_lock);
    statuses.push_back(now_text() + " " + escaped(payload, len));
    if (statuses.size() > status_kept)
        statuses.pop_front();
}

// Keys of the sample lists (BIOMETRIC_SAMPLE_*), by SCAN; empty, or why
// not (a refusal, a lost server).
std::string sample_lists(bMSG::Messager& bus, std::vector<std::string>& keys)
{
    const std::string pattern = std::string(bus.bio_sample) + "*";
    std::string cursor = "0";
    do {
        Reply reply(static_cast<redisReply*>(redisCommand(
            bus.redis_context(), "SCAN %s MATCH %s COUNT 1000", cursor.c_str(), pattern.c_str())));
        if (const std::string why = why_not(bus, reply.get(), "SCAN"); !why.empty())
            return why;
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2)
            return "SCAN: unexpected reply";
        cursor = reply->element[0]->str ? reply->element[0]->str : "0";
        for (size_t i = 0; i < reply->element[1]->elements; ++i)
            if (reply->element[1]->element[i]->type == REDIS_REPLY_STRING)
                keys.push_back(reply->element[1]->element[i]->str);
    } while (cursor != "0");
    return "";
}

// One picture of the bus; empty, or why there is none.
std::string draw(bMSG::Messager& bus, bool terminal)
{
    std::vector<std::string> keys = {bus.device_cmd, bus.bio_cmd, bus.bio_info, bus.bio_resp};
    std::vector<std::string> samples;
    if (const std::string why = sample_lists(bus, samples); !why.empty())
        return why;
    std::sort(samples.begin(), samples.end());
    keys.insert(keys.end(), samples.begin(), samples.end());
    std::string text = now_text() + "\n";
    for (const std::string& key : keys) {
        const int n = bus.list_size(key.c_str());
        if (n < 0)
            return why_failed(bus, n, "LLEN " + key);
        text += "  " + key + std::string(key.size() < 28 ? 28 - key.size() : 1, ' ') +
                std::to_string(n) + "\n";
    }
    text += std::string("  last on ") + bus.system_status + ":\n";
    {
        std::lock_guard<std::mutex> lock(status_lock);
        for (const std::string& s : statuses)
            text += "    " + s + "\n";
    }
    // On a terminal: home the cursor and clear, so the view stays in place.
    printf("%s%s", terminal ? "\x1b[H\x1b[2J" : "", text.c_str());
    fflush(stdout);
    return "";
}

} // namespace

void add_watch_command(CLI::App& app, Action& action)
{
    static double interval = 1;
    static long rounds = 0;
    auto* watch = app.add_subcommand(
        "watch", "Live view: length of each named list and sample list, last messages on "
                 "SYSTEM_STATUS; redrawn in place on a terminal, plain lines otherwise");
    watch->add_option("-i,--interval", interval, "Seconds between pictures (default 1)")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    watch->add_option("-n,--count", rounds, "Stop after COUNT pictures (default 0: never)")
        ->type_name("COUNT")
        ->check(CLI::NonNegativeNumber);
    watch->callback([&] {
        action = [](const Options& o) {
            auto bus = open_bus(o);
            if (!bus)
                return 1;
#if HIREDIS_MAJOR >= 1
            bus->redis_context()->reader->maxelements = scan_reply_elements;
#endif
            bMSG::Subscription status(*bus, {bus->system_status}, keep_status);
            if (status.status() != 0)
                return fail(why_not_subscribed(status));
            const bool terminal = isatty(STDOUT_FILENO);
            for (long i = 0; rounds == 0 || i < rounds; ++i) {
                if (i > 0)
                    std::this_thread::sleep_for(std::chrono::duration<double>(interval));
                if (const std::string why = draw(*bus, terminal); !why.empty())
                    return fail(why);
            }
            return 0;
        };
    });
}

} // namespace bmsg_tool
