// Load: producer and consumer processes on one list. Every message carries
// its producer and sequence number; the consumers write what they received
// to files that the parent checks.
//
// BMSG_LOAD_MESSAGES sets the messages per producer (default 50000).
#include "bmessager.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using bmsg_test::RedisServer;

namespace {

constexpr int producers = 8;
constexpr int consumers = 8;
const char* const queue = "LOAD";
const char* const sentinel = "STOP";

int messages_per_producer()
{
    const char* v = getenv("BMSG_LOAD_MESSAGES");
    return v && atoi(v) > 0 ? atoi(v) : 50000;
}

// Producers and consumers alternate between TCP and the Unix socket.
const char* address_for(const RedisServer& server, int i)
{
    return i % 2 ? server.socket().c_str() : "127.0.0.1";
}

} // namespace

// address, port, producer number, messages.
BMSG_ROLE(producer)
{
    bMSG::Messager m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    const int p = std::stoi(args.at(2)), count = std::stoi(args.at(3));
    for (int seq = 0; seq < count; ++seq)
        if (m.list_send(queue, "%d:%d", p, seq) != 0)
            return 1;
    return 0;
}

// Pops until its sentinel, writing each (producer, sequence) pair to `path`.
// address, port, path.
BMSG_ROLE(consumer)
{
    bMSG::Messager m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    FILE* out = fopen(args.at(2).c_str(), "wb");
    if (!out)
        return 1;
    int idle = 0;
    for (;;) {
        char buf[64];
        const int n = m.list_recv(queue, buf, sizeof buf - 1, 1, nullptr, 0);
        if (n < 0)
            return 2;
        if (n == 0) {
            if (++idle > 120)
                return 3;  // nothing for two minutes: the producers are gone
            continue;
        }
        idle = 0;
        buf[n] = '\0';
        if (strcmp(buf, sentinel) == 0)
            break;
        int32_t pair[2];
        char end;
        if (sscanf(buf, "%d:%d%c", &pair[0], &pair[1], &end) != 2)
            return 4;
        fwrite(pair, sizeof pair, 1, out);
    }
    return fclose(out) == 0 ? 0 : 5;
}

TEST(Load, EightProducersEightConsumersGetEveryMessageOnceInProducerOrder)
{
    const int count = messages_per_producer();
    RedisServer server;
    char tmpl[] = "/tmp/bmsg-load-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    auto result_file = [&](int c) { return dir + "/consumer" + std::to_string(c); };

    const auto start = std::chrono::steady_clock::now();
    const std::string port = std::to_string(server.port());
    std::vector<bmsg_test::Child> consumer_runs, producer_runs;
    for (int c = 0; c < consumers; ++c)
        consumer_runs.push_back(
            bmsg_test::spawn_role("consumer", {address_for(server, c), port, result_file(c)}));
    for (int p = 0; p < producers; ++p)
        producer_runs.push_back(bmsg_test::spawn_role(
            "producer", {address_for(server, p), port, std::to_string(p), std::to_string(count)}));
    for (bmsg_test::Child& run : producer_runs)
        EXPECT_EQ(run.wait(), 0) << "producer " << run.err();
    // Every message is queued before the sentinels, so a consumer that pops
    // a sentinel leaves no message behind.
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    for (int c = 0; c < consumers; ++c)
        ASSERT_EQ(m.list_send(queue, "%s", sentinel), 0);
    for (bmsg_test::Child& run : consumer_runs)
        EXPECT_EQ(run.wait(), 0) << "consumer " << run.err();
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::vector<uint8_t> seen(static_cast<size_t>(producers) * count, 0);
    size_t received = 0, duplicates = 0, out_of_order = 0, bad = 0;
    for (int c = 0; c < consumers; ++c) {
        FILE* in = fopen(result_file(c).c_str(), "rb");
        ASSERT_NE(in, nullptr);
        std::vector<int> last(producers, -1);
        int32_t pair[2];
        while (fread(pair, sizeof pair, 1, in) == 1) {
            ++received;
            const int p = pair[0], seq = pair[1];
            if (p < 0 || p >= producers || seq < 0 || seq >= count) {
                ++bad;
                continue;
            }
            uint8_t& mark = seen[static_cast<size_t>(p) * count + seq];
            duplicates += mark;
            mark = 1;
            // One consumer sees each producer's messages in the order sent.
            out_of_order += seq <= last[p];
            last[p] = seq;
        }
        fclose(in);
        unlink(result_file(c).c_str());
    }
    rmdir(dir.c_str());

    size_t lost = 0;
    for (uint8_t mark : seen)
        lost += !mark;
    EXPECT_EQ(received, seen.size());
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(duplicates, 0u);
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(m.list_size(queue), 0);
    printf("%zu messages from %d producers to %d consumers in %.1f s (%.0f/s)\n", received,
           producers, consumers, took, received / took);
    RecordProperty("messages", static_cast<int>(received));
}
