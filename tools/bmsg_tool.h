// Pieces shared by the subcommands of the bmsg tool.
#ifndef BMSG_TOOLS_BMSG_TOOL_H
#define BMSG_TOOLS_BMSG_TOOL_H

#include "bmessager.h"
#include "bsubscription.h"

#include <CLI/CLI.hpp>
#include <hiredis/hiredis.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace bmsg_tool {

// Where the server is: the socket path when given, else host and port; whom
// to log in as (the password comes from BMSG_PASSWORD or, with askpass, from
// the terminal or standard input, never from the command line; a password
// without a user is refused, "default" names the default user).
struct Options {
    std::string socket;
    std::string host = "127.0.0.1";
    uint16_t port = 6379;
    std::string user;
    bool askpass = false;
};

// What the chosen subcommand does once the arguments are parsed; returns the
// exit status.
using Action = std::function<int(const Options&)>;

// A connected (and logged in) Messager that fails on error replies
// (set_error_replies), or null after a one-line message on stderr. Checks
// that something listens first (a few seconds at most), so a missing server
// fails at once instead of going through the library's retry pauses.
struct ReplyFree {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};
// Owns one reply to a command the tool sends itself; freed on every path.
using Reply = std::unique_ptr<redisReply, ReplyFree>;

std::unique_ptr<bMSG::Messager> open_bus(const Options& options);

// A file descriptor closed on every exit path.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd();
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// Prints "bmsg: <message>" on stderr (with its level when that is the
// journal: bMSG::write_error_line); returns 1, the exit status of a failed
// bus operation.
int fail(const std::string& message);

// Why the library call `what` gave `rc` (< 0): "<what> refused: <the
// server's error reply>" for -4, the lost connection when hiredis marked it
// failed, else the code.
std::string why_failed(const bMSG::Messager& bus, int rc, const std::string& what);

// Empty when `reply`, to a command the tool sent itself on the bus's
// connection, is an answer; else why not, as why_failed says it.
std::string why_not(const bMSG::Messager& bus, const redisReply* reply, const std::string& what);

// Why `sub` is not subscribed (status() not 0): the server's refusal when
// there was one.
std::string why_not_subscribed(const bMSG::Subscription& sub);

// Set by Ctrl-C (SIGINT) and SIGTERM once catch_stop() ran.
extern std::atomic<bool> stop_requested;
void catch_stop();

// The key of a named list ("device", "cmd", "info", "resp"); any other name
// is taken as a key itself.
std::string list_key(const std::string& name);

// "HH:MM:SS.mmm", local time.
std::string now_text();

// Length of the well-formed UTF-8 sequence of two to four bytes at p, of
// which `left` are there (no overlong form, surrogate or code point past
// U+10FFFF), else 0.
size_t utf8_length(const unsigned char* p, size_t left);

// The bytes as one line of text: well-formed UTF-8 and printable ASCII as
// they are; backslash, newline, tab and carriage return as C escapes; any other
// byte as \xNN.
std::string escaped(const char* bytes, size_t length);

// The -t option of every subcommand that waits: up to SECONDS, 0 for ever
// (as Redis's blocking pops). `seconds` keeps its value when -t is not given
// (-1 for "do not wait"); `without` says what happens then.
void add_timeout(CLI::App* sub, int& seconds, const std::string& without);

// Register the subcommands of bmsg_sample.cpp, bmsg_watch.cpp and
// bmsg_subscribe.cpp; the one chosen stores its work in `action`.
void add_sample_commands(CLI::App& app, Action& action);
void add_watch_command(CLI::App& app, Action& action);
void add_subscribe_command(CLI::App& app, Action& action);
// record, play, info and export (bmsg_record.cpp and its neighbours).
void add_record_commands(CLI::App& app, Action& action);
// report (bmsg_report.cpp): one HTML page of recordings.
void add_report_command(CLI::App& app, Action& action);

// Where the bmsg-tools package puts recording.md and security.md.
extern const char* const doc_dir;

// bmsg(1) in roff: every command and option of `app` (those in an unnamed
// group, hidden from --help, aside), the environment and the exit status.
void write_man_page(const CLI::App& app, std::ostream& out);

} // namespace bmsg_tool

#endif
