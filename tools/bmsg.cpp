// bmsg: look at and talk to the device's message bus from a shell.
#include "bmsg_tool.h"

#include "breport.h"

#include <hiredis/hiredis.h>
#include <signal.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <vector>

using bmsg_tool::Action;
using bmsg_tool::fail;
using bmsg_tool::open_bus;
using bmsg_tool::Options;

namespace {

constexpr int value_max = 1 << 20;
constexpr const char* lists_help =
    "LIST is a key or a named list: device (DEVICE_CMD), cmd (BIO_CMD), "
    "info (MAIN_BIOMETRIC_INFO), resp (BIOMETRIC_RESP)";

// The bus of the running subcommand: checked() prints its refusals.
const bMSG::Messager* current = nullptr;

// Makes `sub` run `work` on a fresh connection (1 when there is none).
void on_bus(CLI::App* sub, Action& action, int (*work)(bMSG::Messager&))
{
    sub->callback([&action, work] {
        action = [work](const Options& o) {
            auto bus = open_bus(o);
            current = bus.get();
            return bus ? work(*bus) : 1;
        };
    });
}

// A refused command fails with the server's text (NOPERM ...).
int checked(int rc, const std::string& what)
{
    return rc < 0 ? fail(bmsg_tool::why_failed(*current, rc, what)) : 0;
}

// The va_list publish: the variadic one also reports a lost server itself,
// a second line on stderr.
int publish_quietly(bMSG::Messager& bus, const char* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = bus.publish(channel, format, args);
    va_end(args);
    return n;
}

void add_bus_commands(CLI::App& app, Action& action)
{
    // Argument storage lives as long as the parser: static.
    static std::string key, value, list, channel;
    static int seconds = -1;

    on_bus(app.add_subcommand("ping", "Check that the server answers"), action, [](bMSG::Messager& bus) {
        bmsg_tool::Reply reply(static_cast<redisReply*>(redisCommand(bus.redis_context(), "PING")));
        if (const std::string why = bmsg_tool::why_not(bus, reply.get(), "PING"); !why.empty())
            return fail(why);
        const bool pong = reply->type == REDIS_REPLY_STATUS;
        puts(pong ? reply->str : "unexpected reply");
        return pong ? 0 : 1;
    });

    auto* get = app.add_subcommand("get", "Print a setting; exit 1 when there is none");
    get->add_option("KEY", key)->required();
    on_bus(get, action, [](bMSG::Messager& bus) {
        // Messager::get cannot tell a missing key from an empty value.
        bmsg_tool::Reply reply(static_cast<redisReply*>(redisCommand(bus.redis_context(), "GET %s", key.c_str())));
        if (const std::string why = bmsg_tool::why_not(bus, reply.get(), "GET " + key); !why.empty())
            return fail(why);  // NOPERM, WRONGTYPE, or the server is gone
        if (reply->type != REDIS_REPLY_STRING)
            return fail("no setting " + key);
        fwrite(reply->str, 1, reply->len, stdout);
        putchar('\n');
        return 0;
    });

    auto* set = app.add_subcommand("set", "Store a setting as text");
    set->add_option("KEY", key)->required();
    set->add_option("VALUE", value)->required();
    on_bus(set, action, [](bMSG::Messager& bus) {
        return checked(bus.set(key.c_str(), value.c_str()), "SET");
    });

    auto* push = app.add_subcommand("push", "Push TEXT onto LIST");
    push->add_option("LIST", list)->required();
    push->footer(lists_help);
    push->add_option("TEXT", value)->required();
    on_bus(push, action, [](bMSG::Messager& bus) {
        return checked(bus.list_send(bmsg_tool::list_key(list).c_str(), "%s", value.c_str()),
                       "push");
    });

    auto* pop = app.add_subcommand(
        "pop", "Take the oldest element off LIST and print it; exit 1 when there is none (in "
               "time)");
    pop->add_option("LIST", list)->required();
    pop->footer(lists_help);
    bmsg_tool::add_timeout(pop, seconds, "without -t: do not wait");
    on_bus(pop, action, [](bMSG::Messager& bus) {
        std::vector<char> text(value_max);
        const std::string k = bmsg_tool::list_key(list);
        // list_recv takes 0 as "do not wait": for ever is 2^31-1 s (68 years).
        const int wait = seconds == 0 ? INT_MAX : std::max(seconds, 0);
        const int n = bus.list_recv(k.c_str(), text.data(), value_max, wait, nullptr, 0);
        if (n < 0)
            return checked(n, "pop");
        if (n == 0)
            return fail("nothing on " + k);
        fwrite(text.data(), 1, static_cast<size_t>(n), stdout);
        putchar('\n');
        return 0;
    });

    auto* len = app.add_subcommand("len", "Print the length of LIST");
    len->add_option("LIST", list)->required();
    len->footer(lists_help);
    on_bus(len, action, [](bMSG::Messager& bus) {
        const int n = bus.list_size(bmsg_tool::list_key(list).c_str());
        if (n >= 0)
            printf("%d\n", n);
        return checked(n, "LLEN");
    });

    auto* clear = app.add_subcommand("clear", "Delete LIST");
    clear->add_option("LIST", list)->required();
    clear->footer(lists_help);
    on_bus(clear, action, [](bMSG::Messager& bus) {
        return checked(bus.list_clear(bmsg_tool::list_key(list).c_str()), "DEL");
    });

    auto* publish = app.add_subcommand("publish", "Publish TEXT on CHANNEL, print the receivers");
    publish->add_option("CHANNEL", channel)->required();
    publish->add_option("TEXT", value)->required();
    on_bus(publish, action, [](bMSG::Messager& bus) {
        const int n = publish_quietly(bus, channel.c_str(), "%s", value.c_str());
        if (n >= 0)
            printf("%d\n", n);
        return checked(n, "PUBLISH");
    });
}

} // namespace

int main(int argc, char** argv)
{
    // Some commands go out with plain redisCommand, whose write to a server
    // that has gone would raise SIGPIPE: an I/O error is reported instead.
    signal(SIGPIPE, SIG_IGN);
    // Every diagnostic on stderr, the library's reports too, one line each.
    bMSG::set_report_handler(bMSG::report_to_journal);
    CLI::App app("Look at and talk to the device's message bus (a Redis server).\n"
                 "Exit status: 0 done, 1 the bus operation failed, 2 bad usage.\n"
                 "-t SECONDS of the subcommands that wait: up to SECONDS, 0 for ever; without\n"
                 "-t pop and sample recv do not wait, sample send waits 10 s.",
                 "bmsg");
    Options options;
    auto* socket = app.add_option("-s,--socket", options.socket, "Unix socket path of the server")
                       ->type_name("PATH");
    app.add_option("-H,--host", options.host, "Server host (default 127.0.0.1)")
        ->type_name("HOST")
        ->excludes(socket);
    app.add_option("-p,--port", options.port, "Server TCP port (default 6379)")
        ->type_name("PORT")
        ->excludes(socket);
    app.add_option("-u,--user", options.user,
                   "Log in as NAME (ACL user) with the password in BMSG_PASSWORD or --askpass")
        ->type_name("NAME");
    app.add_flag("--askpass", options.askpass,
                 "Read the password from the terminal (not echoed) or one line of stdin");
    app.set_version_flag("--version", "bmsg " BMSG_VERSION);
    // For the build, which installs its output as bmsg(1); not in --help.
    app.add_flag_callback("--man-page", [&app] {
           bmsg_tool::write_man_page(app, std::cout);
           throw CLI::Success();
       })->group("");
    app.require_subcommand(1);
    app.fallthrough();

    Action action;
    add_bus_commands(app, action);
    bmsg_tool::add_subscribe_command(app, action);
    bmsg_tool::add_watch_command(app, action);
    bmsg_tool::add_sample_commands(app, action);
    bmsg_tool::add_record_commands(app, action);
    bmsg_tool::add_report_command(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::Success&) {
        return 0;
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    // The library takes an address that does not start with '/' for a host
    // name: a relative socket path is made absolute here.
    if (!options.socket.empty() && options.socket[0] != '/')
        options.socket = std::filesystem::absolute(options.socket).string();
    return action(options);
}
