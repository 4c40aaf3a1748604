// bmsg-cli: look at and poke the message bus from a shell.
#include "bmessager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int value_max = 1 << 20;

int usage()
{
    fputs("usage: bmsg-cli [-a ADDRESS|SOCKET] [-p PORT] COMMAND [ARGS]\n"
          "  status                 length of every named list\n"
          "  get KEY                print a setting\n"
          "  set KEY VALUE          store a setting (text)\n"
          "  push LIST TEXT         push TEXT onto LIST\n"
          "  pop LIST [SECONDS]     pop from LIST, waiting up to SECONDS (0: no wait)\n"
          "  size LIST              length of LIST\n"
          "  clear LIST             delete LIST\n"
          "  publish CHANNEL TEXT   publish TEXT, print the number of receivers\n"
          "  subscribe CHANNEL      print every message on CHANNEL until the connection ends\n"
          "Defaults: -a 127.0.0.1 -p 6379. Exit status 0, 1 on a failed command, 2 on bad usage.\n",
          stderr);
    return 2;
}

int failed(const char* what, int code)
{
    fprintf(stderr, "bmsg-cli: %s failed (%d)\n", what, code);
    return 1;
}

int status(bMSG::Messager& bus)
{
    const char* lists[] = {bus.device_cmd, bus.bio_cmd, bus.bio_info, bus.bio_resp};
    for (const char* list : lists) {
        int n = bus.list_size(list);
        if (n < 0)
            return failed("LLEN", n);
        printf("%-20s %d\n", list, n);
    }
    return 0;
}

int get(bMSG::Messager& bus, const char* key)
{
    std::vector<char> value(value_max + 1, '\0');
    int rc = bus.get(key, value.data(), value_max);
    if (rc < 0)
        return failed("GET", rc);
    puts(value.data());
    return 0;
}

int pop(bMSG::Messager& bus, const char* list, int seconds)
{
    std::vector<char> value(value_max);
    int n = bus.list_recv(list, value.data(), value_max, seconds, nullptr, 0);
    if (n < 0)
        return failed("pop", n);
    fwrite(value.data(), 1, static_cast<size_t>(n), stdout);
    putchar('\n');
    return 0;
}

int subscribe(bMSG::Messager& bus, const char* channel)
{
    int rc = bus.subscribe(channel, [](const char* ch, const char* payload, size_t len, void*) {
        printf("%s: %.*s\n", ch, static_cast<int>(len), payload);
        fflush(stdout);
    });
    return rc < 0 ? failed("SUBSCRIBE", rc) : 0;
}

int run(bMSG::Messager& bus, const std::string& cmd, int argc, char** argv)
{
    auto code = [](const char* what, int rc) { return rc < 0 ? failed(what, rc) : 0; };
    if (cmd == "status" && argc == 0)
        return status(bus);
    if (cmd == "get" && argc == 1)
        return get(bus, argv[0]);
    if (cmd == "set" && argc == 2)
        return code("SET", bus.set(argv[0], argv[1]));
    if (cmd == "push" && argc == 2)
        return code("LPUSH", bus.list_send(argv[0], "%s", argv[1]));
    if (cmd == "pop" && (argc == 1 || argc == 2))
        return pop(bus, argv[0], argc == 2 ? atoi(argv[1]) : 0);
    if (cmd == "size" && argc == 1) {
        int n = bus.list_size(argv[0]);
        return n < 0 ? failed("LLEN", n) : (printf("%d\n", n), 0);
    }
    if (cmd == "clear" && argc == 1) {
        int n = bus.list_clear(argv[0]);
        return n < 0 ? failed("DEL", n) : (printf("%d\n", n), 0);
    }
    if (cmd == "publish" && argc == 2) {
        int n = bus.publish(argv[0], "%s", argv[1]);
        return n < 0 ? failed("PUBLISH", n) : (printf("%d\n", n), 0);
    }
    if (cmd == "subscribe" && argc == 1)
        return subscribe(bus, argv[0]);
    return usage();
}

} // namespace

int main(int argc, char** argv)
{
    const char* address = "127.0.0.1";
    int port = 6379;
    int i = 1;
    for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
        if (strcmp(argv[i], "-a") == 0)
            address = argv[i + 1];
        else if (strcmp(argv[i], "-p") == 0)
            port = atoi(argv[i + 1]);
        else
            return usage();
    }
    if (i >= argc || port <= 0 || port > 65535)
        return usage();
    bMSG::Messager bus(address, static_cast<uint16_t>(port), 1);
    if (!bus.redis_context())
        return failed("connect", -1);
    return run(bus, argv[i], argc - i - 1, argv + i + 1);
}
