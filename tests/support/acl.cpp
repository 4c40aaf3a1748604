#include "acl.h"

#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <fstream>

namespace bmsg_test {

AclServer::AclServer()
{
    std::ifstream random("/dev/urandom", std::ios::binary);
    for (std::string user : {"admin", "capture", "consumer", "control", "fieldtool", "recorder"}) {
        std::string& password = passwords[user];
        while (password.size() < 24)
            password += "abcdefghijklmnopqrstuvwxyz0123456789"[static_cast<unsigned>(random.get()) % 36];
        for (char& c : user)
            c = static_cast<char>(toupper(c));
        setenv(("BMSG_PASSWORD_" + user).c_str(), password.c_str(), 1);
    }
    char file[] = "/tmp/bmsg-acl-XXXXXX";
    close(mkstemp(file));
    if (spawn_native(BMSG_ACL_PROVISION, {BMSG_ACL_FILE, file}).wait() != 0)
        abort();
    server = std::make_unique<RedisServer>(std::vector<std::string>{"--aclfile", file, "--port", "0"});
    unlink(file);
}

} // namespace bmsg_test
