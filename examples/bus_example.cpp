// A tour of the message bus: settings, a command queue and a status
// publication. Usage: bmsg_example [address-or-socket-path] [port]
#include "bmessager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    const char* address = argc > 1 ? argv[1] : "127.0.0.1";
    const uint16_t port = static_cast<uint16_t>(argc > 2 ? atoi(argv[2]) : 6379);

    bMSG::Messager bus(address, port, 3);
    if (!bus.redis_context()) {
        fprintf(stderr, "no Redis server at %s:%u\n", address, port);
        return 1;
    }

    bus.set("demo.exposure", 2.5f);
    float exposure = 0;
    bus.get("demo.exposure", &exposure);
    printf("setting demo.exposure = %g\n", exposure);

    bus.bio_cmd_send("%s", "capture finger 1");
    char command[256] = {};
    char from[64] = {};
    int n = bus.list_recv(bus.bio_cmd, command, sizeof command - 1, 1, from, sizeof from);
    printf("received %d bytes from %s: %s\n", n, from, command);

    int listeners = bus.system_publish("%s", "demo running");
    printf("status published to %d subscriber(s)\n", listeners);
    return n > 0 ? 0 : 1;
}
