#include "bmsg_tool.h"

#include "breport.h"

#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

namespace bmsg_tool {

namespace {

constexpr int probe_timeout_ms = 3000;

// Connects a non-blocking socket to `address` within the probe time-out;
// an empty string on success, else why not.
std::string try_connect(int family, const sockaddr* address, socklen_t length)
{
    Fd s(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (s.fd < 0)
        return strerror(errno);
    if (connect(s.fd, address, length) == 0)
        return "";
    if (errno != EINPROGRESS)
        return strerror(errno);
    pollfd p = {s.fd, POLLOUT, 0};
    if (poll(&p, 1, probe_timeout_ms) != 1)
        return "no answer within 3 s";
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error ? strerror(error) : "";
}

std::string probe(const Options& o)
{
    if (!o.socket.empty()) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (o.socket.size() >= sizeof address.sun_path)
            return "socket path too long";
        memcpy(address.sun_path, o.socket.c_str(), o.socket.size());
        return try_connect(AF_UNIX, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(o.host.c_str(), std::to_string(o.port).c_str(), &hints, &found);
    if (rc != 0)
        return gai_strerror(rc);
    std::string why = "no address";
    for (addrinfo* a = found; a && !why.empty(); a = a->ai_next)
        why = try_connect(a->ai_family, a->ai_addr, a->ai_addrlen);
    freeaddrinfo(found);
    return why;
}

// The terminal's settings while a password is read without echo. A signal
// that would end the tool then (Ctrl-C, a hang-up) puts them back first.
termios saved_terminal;

void restore_terminal_and_die(int sig)
{
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_terminal);
    signal(sig, SIG_DFL);
    raise(sig);  // delivered on return, now with the default action
}

// One line of standard input, read a byte at a time so that no stream
// buffer keeps a copy; on a terminal it is asked for on stderr and not
// echoed.
std::string ask_password()
{
    const int ends[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    struct sigaction before[4] = {}, restore = {};
    const bool terminal = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved_terminal) == 0;
    if (terminal) {
        restore.sa_handler = restore_terminal_and_die;
        sigemptyset(&restore.sa_mask);
        for (int i = 0; i < 4; ++i)
            if (sigaction(ends[i], nullptr, &before[i]) == 0 && before[i].sa_handler != SIG_IGN)
                sigaction(ends[i], &restore, nullptr);
        termios quiet = saved_terminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        fputs("Password: ", stderr);
    }
    std::string line;
    line.reserve(256);  // a longer one leaves its shorter copies behind, uncleared
    for (char c; ;) {
        const ssize_t n = read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 1 || c == '\n')
            break;
        line += c;
    }
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_terminal);
        for (int i = 0; i < 4; ++i)
            sigaction(ends[i], &before[i], nullptr);
        fputc('\n', stderr);
    }
    return line;
}

} // namespace

int fail(const std::string& message)
{
    bMSG::write_error_line("bmsg: " + message);
    return 1;
}

std::atomic<bool> stop_requested{false};

namespace {

void on_stop(int)
{
    stop_requested = true;
}

} // namespace

void catch_stop()
{
    struct sigaction sa = {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

std::string why_failed(const bMSG::Messager& bus, int rc, const std::string& what)
{
    if (rc == -4)
        return what + " refused: " + bus.last_error();
    const redisContext* c = bus.redis_context();
    if (c && c->err)
        return what + ": lost the server (" + c->errstr + ")";
    if (rc == -13)  // only the sample senders
        return what + ": no room in /dev/shm to grow the segment";
    return what + " failed (" + std::to_string(rc) + ")";
}

std::string why_not(const bMSG::Messager& bus, const redisReply* reply, const std::string& what)
{
    if (reply && reply->type == REDIS_REPLY_ERROR)
        return what + " refused: " + std::string(reply->str, reply->len);
    if (reply)
        return "";
    const redisContext* c = bus.redis_context();
    return what + ": lost the server (" + (c && c->err ? c->errstr : "no reply") + ")";
}

Fd::~Fd()
{
    if (fd >= 0)
        close(fd);
}

std::unique_ptr<bMSG::Messager> open_bus(const Options& o)
{
    const std::string where = o.socket.empty() ? o.host + ":" + std::to_string(o.port) : o.socket;
    const char* env = getenv("BMSG_PASSWORD");
    if (o.user.empty() && (env || o.askpass)) {  // whose password would it be?
        fail("a password (BMSG_PASSWORD or --askpass) needs --user NAME (--user default for the default user)");
        return nullptr;
    }
    const std::string why = probe(o);
    if (!why.empty()) {
        fail("no server at " + where + ": " + why);
        return nullptr;
    }
    std::string password = o.askpass ? ask_password() : env ? env : "";
    const bool login = !o.user.empty();
    // One attempt: the probe has just seen the server. The library reports
    // a refused login itself (on stdout, with the server's reason). The
    // Messager keeps its own copy of the password; this one is cleared.
    // A socket has no port: 0 keeps the reports from naming one.
    std::unique_ptr<bMSG::Messager> bus(new bMSG::Messager(
        o.socket.empty() ? o.host.c_str() : o.socket.c_str(), o.socket.empty() ? o.port : 0, 1,
        o.user.empty() ? nullptr : o.user.c_str(), login ? password.c_str() : nullptr));
    const bool none_given = password.empty();
    explicit_bzero(&password[0], password.size());
    if (!bus->redis_context()) {
        fail(bus->last_error().empty() ? "cannot connect to " + where
             : none_given ? "login refused (no password given: BMSG_PASSWORD or --askpass): " + bus->last_error()
                          : "login refused: " + bus->last_error());
        return nullptr;
    }
    bus->set_error_replies(true);
    return bus;
}

std::string why_not_subscribed(const bMSG::Subscription& sub)
{
    if (!sub.last_error().empty())
        return "SUBSCRIBE refused: " + sub.last_error();
    return "cannot subscribe (" + std::to_string(sub.status()) + ")";
}

std::string list_key(const std::string& name)
{
    if (name == "device")
        return "DEVICE_CMD";
    if (name == "cmd")
        return "BIO_CMD";
    if (name == "info")
        return "MAIN_BIOMETRIC_INFO";
    if (name == "resp")
        return "BIOMETRIC_RESP";
    return name;
}

std::string now_text()
{
    using namespace std::chrono;
    const auto now = system_clock::now();
    const time_t seconds = system_clock::to_time_t(now);
    tm local = {};
    localtime_r(&seconds, &local);
    char text[32];
    const long ms = static_cast<long>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec, ms);
    return text;
}

size_t utf8_length(const unsigned char* p, size_t left)
{
    size_t n = 0;
    unsigned char low = 0x80, high = 0xbf;  // allowed second byte
    if (p[0] >= 0xc2 && p[0] <= 0xdf)
        n = 2;
    else if (p[0] >= 0xe0 && p[0] <= 0xef)
        n = 3, low = p[0] == 0xe0 ? 0xa0 : 0x80, high = p[0] == 0xed ? 0x9f : 0xbf;
    else if (p[0] >= 0xf0 && p[0] <= 0xf4)
        n = 4, low = p[0] == 0xf0 ? 0x90 : 0x80, high = p[0] == 0xf4 ? 0x8f : 0xbf;
    if (n == 0 || left < n || p[1] < low || p[1] > high)
        return 0;
    for (size_t i = 2; i < n; ++i)
        if (p[i] < 0x80 || p[i] > 0xbf)
            return 0;
    return n;
}

std::string escaped(const char* bytes, size_t length)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        if (const size_t n = utf8_length(p + i, length - i)) {
            out.append(bytes + i, n);
            i += n - 1;
        } else if (p[i] == '\\') {
            out += "\\\\";
        } else if (p[i] == '\n') {
            out += "\\n";
        } else if (p[i] == '\t') {
            out += "\\t";
        } else if (p[i] == '\r') {
            out += "\\r";
        } else if (p[i] >= 0x20 && p[i] < 0x7f) {
            out += bytes[i];
        } else {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02x", p[i]);
            out += hex;
        }
    }
    return out;
}

void add_timeout(CLI::App* sub, int& seconds, const std::string& without)
{
    sub->add_option("-t,--timeout", seconds, "Wait up to SECONDS, 0 for ever; " + without)
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
}

} // namespace bmsg_tool
