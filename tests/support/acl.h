// A private redis-server, on its Unix socket only, under the device's ACL
// file, provisioned as the device does (data/provision-acl) with a fresh
// random password for every user. The passwords stay in this process's
// environment as BMSG_PASSWORD_<USER> for the programs it starts.
#ifndef BMSG_TEST_ACL_H
#define BMSG_TEST_ACL_H

#include "redis_server.h"

#include <map>
#include <memory>

namespace bmsg_test {

struct AclServer {
    AclServer();
    std::map<std::string, std::string> passwords;  // by user
    std::unique_ptr<RedisServer> server;
};

} // namespace bmsg_test

#endif
