// A redis-server on its socket only under the device's ACL file, provisioned as the device does
// (data/provision-acl) with a random password per user, left in the environment (BMSG_PASSWORD_<USER>).
#pragma once
#include "redis_server.h"
#include <unistd.h>
#include <cctype>
#include <fstream>
#include <map>
#include <memory>
namespace bmsg_test {
struct AclServer {
    std::map<std::string, std::string> passwords;  // by user
    std::unique_ptr<RedisServer> server;
    AclServer()
    {
        std::ifstream random("/dev/urandom", std::ios::binary);
        for (const char* user : {"admin", "capture", "consumer", "control", "fieldtool", "recorder"}) {
            std::string &pw = passwords[user], var = "BMSG_PASSWORD_";
            while (pw.size() < 24)
                pw += "abcdefghijklmnopqrstuvwxyz0123456789"[static_cast<unsigned>(random.get()) % 36];
            for (const char* c = user; *c; ++c)
                var += static_cast<char>(toupper(*c));
            setenv(var.c_str(), pw.c_str(), 1);
        }
        char file[] = "/tmp/bmsg-acl-XXXXXX";
        close(mkstemp(file));
        if (spawn_native(BMSG_ACL_PROVISION, {BMSG_ACL_FILE, file}).wait() != 0)
            abort();
        server = std::make_unique<RedisServer>(std::vector<std::string>{"--aclfile", file, "--port", "0"});
        unlink(file);
    }
};
} // namespace bmsg_test
