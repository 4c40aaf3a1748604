// Load: 8 producer and 8 consumer processes on one list, half over TCP and
// half over the Unix socket. BMSG_LOAD_MESSAGES sets the messages per
// producer (default 50000).
#include "bmessager.h"
#include "child.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

using namespace bmsg_test;

// address, port, producer number, messages: pushes "<producer>:<sequence>".
BMSG_ROLE(producer)
{
    bMSG::Messager m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    for (int seq = 0; seq < std::stoi(args.at(3)); ++seq)
        if (m.list_send("LOAD", "%s:%d", args.at(2).c_str(), seq) != 0)
            return 1;
    return 0;
}

// address, port: prints each message popped, one a line, until "STOP".
BMSG_ROLE(consumer)
{
    bMSG::Messager m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    for (int idle = 0; idle < 120;) {  // two minutes without a message: the producers are gone
        char buf[64] = {};
        const int n = m.list_recv("LOAD", buf, sizeof buf - 1, 1, nullptr, 0);
        if (n < 0 || strcmp(buf, "STOP") == 0)
            return n < 0;
        idle = n ? 0 : idle + 1;
        if (n)
            printf("%s\n", buf);
    }
    return 2;
}

TEST(Load, EightProducersEightConsumersGetEveryMessageOnceInProducerOrder)
{
    const char* env = getenv("BMSG_LOAD_MESSAGES");
    const int count = env && atoi(env) > 0 ? atoi(env) : 50000, processes = 8;
    RedisServer server;
    const auto start = std::chrono::steady_clock::now();
    const std::string port = std::to_string(server.port());
    std::vector<Child> consumers, producers;
    for (int i = 0; i < processes; ++i) {
        const char* address = i % 2 ? server.socket().c_str() : "127.0.0.1";
        consumers.push_back(spawn_role("consumer", {address, port}));
        producers.push_back(spawn_role("producer", {address, port, std::to_string(i), std::to_string(count)}));
    }
    for (Child& c : producers)
        EXPECT_EQ(c.wait(), 0) << c.err();
    // Every message is queued before the sentinels.
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    for (int i = 0; i < processes; ++i)
        ASSERT_EQ(m.list_send("LOAD", "STOP"), 0);
    std::vector<int> seen(static_cast<size_t>(processes) * count, 0);
    int out_of_order = 0;
    for (Child& c : consumers) {
        EXPECT_EQ(c.wait(), 0) << c.err();
        std::istringstream in(c.out());
        std::vector<int> last(processes, -1);
        int p, seq;
        char colon;
        while (in >> p >> colon >> seq) {
            ASSERT_TRUE(p >= 0 && p < processes && seq >= 0 && seq < count) << p << ":" << seq;
            ++seen[static_cast<size_t>(p) * count + seq];
            out_of_order += seq <= last[p];  // one consumer sees a producer's order
            last[p] = seq;
        }
    }
    const double took = seconds_since(start);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(seen.size())) << "lost or doubled";
    EXPECT_EQ(out_of_order, 0);
    EXPECT_EQ(m.list_size("LOAD"), 0);
    printf("%zu messages from %d producers to %d consumers in %.1f s (%.0f/s)\n", seen.size(), processes,
           processes, took, seen.size() / took);
    RecordProperty("messages", static_cast<int>(seen.size()));
}
