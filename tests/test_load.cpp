// Load: 8 producer and 8 consumer processes on one list, half over TCP and
// half over the Unix socket; BMSG_LOAD_MESSAGES messages per producer.
#include "bmessager.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <sstream>

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

// address, port: prints each message, one a line, until "STOP" (or two idle minutes).
BMSG_ROLE(consumer)
{
    bMSG::Messager m(args.at(0).c_str(), static_cast<uint16_t>(std::stoi(args.at(1))), 3);
    for (int idle = 0, n = 0; idle < 120; idle = n ? 0 : idle + 1) {
        char buf[64] = {};
        if ((n = m.list_recv("LOAD", buf, sizeof buf - 1, 1, nullptr, 0)) < 0 || strcmp(buf, "STOP") == 0)
            return n < 0;
        printf("%s%s", buf, n ? "\n" : "");
    }
    return 2;
}

TEST(Load, EightProducersEightConsumersGetEveryMessageOnceInProducerOrder)
{
    const int count = getenv("BMSG_LOAD_MESSAGES") ? atoi(getenv("BMSG_LOAD_MESSAGES")) : 50000, processes = 8;
    RedisServer server;
    const std::string port = std::to_string(server.port());
    std::vector<Child> consumers, producers;
    for (int i = 0; i < processes; ++i) {
        const char* address = i % 2 ? server.socket().c_str() : "127.0.0.1";
        consumers.push_back(spawn_role("consumer", {address, port}));
        producers.push_back(spawn_role("producer", {address, port, std::to_string(i), std::to_string(count)}));
    }
    for (Child& c : producers)
        EXPECT_EQ(c.wait(), 0) << c.err();
    bMSG::Messager m(server.socket().c_str(), 0, 1);
    for (int i = 0; i < processes; ++i)  // behind every message
        ASSERT_EQ(m.list_send("LOAD", "STOP"), 0);
    std::vector<int> seen(processes * count, 0);
    int out_of_order = 0, p, seq;
    char colon;
    for (Child& c : consumers) {
        EXPECT_EQ(c.wait(), 0) << c.err();
        std::istringstream in(c.out());
        std::vector<int> last(processes, -1);  // one consumer sees each producer's order
        for (; in >> p >> colon >> seq; last[p] = seq) {
            ASSERT_TRUE(p >= 0 && p < processes && seq >= 0 && seq < count) << p << ":" << seq;
            ++seen[p * count + seq];
            out_of_order += seq <= last[p];
        }
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), processes * count) << "lost or doubled";
    EXPECT_EQ(out_of_order, 0);
}
