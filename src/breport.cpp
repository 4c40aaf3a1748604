// The library's report and where it goes: the default two-stream form, or
// the process's handler.
#include "breport.h"

#include "bmsg_internal.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace bMSG {

namespace {

std::mutex handler_mutex;
// Shared so that a report holds its handler while it runs, and a new one can
// be set meanwhile.
std::shared_ptr<const ReportHandler> handler;

std::shared_ptr<const ReportHandler> current_handler()
{
    std::lock_guard<std::mutex> lock(handler_mutex);
    return handler;
}

// systemd names the journal's stream in JOURNAL_STREAM as "<device>:<inode>".
bool stderr_is_journal()
{
    const char* stream = getenv("JOURNAL_STREAM");
    struct stat st;
    if (!stream || fstat(STDERR_FILENO, &st) != 0)
        return false;
    unsigned long long dev = 0, ino = 0;
    return sscanf(stream, "%llu:%llu", &dev, &ino) == 2 && dev == st.st_dev && ino == st.st_ino;
}

} // namespace

void set_report_handler(ReportHandler h)
{
    auto next = h ? std::make_shared<const ReportHandler>(std::move(h)) : nullptr;
    std::lock_guard<std::mutex> lock(handler_mutex);
    handler = std::move(next);
}

void report(const char* func, int line, const char* format, ...)
{
    if (auto h = current_handler()) {
        char text[1024];
        va_list ap;
        va_start(ap, format);
        vsnprintf(text, sizeof text, format, ap);
        va_end(ap);
        (*h)(func, line, text);
        return;
    }
    fprintf(stderr, "bMSG ERROR %s[%d]:", func, line);
    // Reports come from several threads (subscriptions, senders): the message and its
    // line break are one unit on stdout, so two reports never share a line.
    flockfile(stdout);
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
    putchar('\n');
    funlockfile(stdout);
    fflush(stderr);
}

void write_error_line(const std::string& line)
{
    std::string out = (stderr_is_journal() ? "<3>" : "") + line + "\n";
    // One write, so lines of several threads never mix; stdio's buffer is
    // flushed first to keep the order of what went before.
    fflush(stderr);
    for (size_t done = 0; done < out.size();) {
        ssize_t n = write(STDERR_FILENO, out.data() + done, out.size() - done);
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

void report_to_journal(const char* function, int line, const char* message)
{
    write_error_line(std::string("bMSG ERROR ") + function + "[" + std::to_string(line) + "]: " + message);
}

void report_to_syslog(const char* function, int line, const char* message)
{
    syslog(LOG_ERR, "%s[%d]: %s", function, line, message);
}

} // namespace bMSG
