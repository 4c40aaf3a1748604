// Where the library's reports go. By default a report is the prefix
// "bMSG ERROR <function>[<line>]:" on stderr and the message with a line
// break on stdout. A service under systemd wants each report as one line in
// its journal with a level, and a program of its own may want them
// elsewhere: a process-wide handler takes them instead.
#ifndef BMSG_BREPORT_H
#define BMSG_BREPORT_H

#include <functional>
#include <string>

#ifndef BMSG_API
#define BMSG_API __attribute__((visibility("default")))
#endif

namespace bMSG {

// Receives each report: the reporting function's name, its source line and
// the message (no line break). Called on the thread that reports (the
// threads of subscriptions included), possibly on several at once, so it
// must be thread-safe; it must not call set_report_handler.
using ReportHandler = std::function<void(const char* function, int line, const char* message)>;

// Sends every later report of the process to `handler`; an empty handler
// restores the default output. Thread-safe; a report already being
// delivered finishes with the handler it started with.
BMSG_API void set_report_handler(ReportHandler handler);

// A ready-made handler: the whole report as one line on stderr
// ("bMSG ERROR <function>[<line>]: <message>"), written by write_error_line.
BMSG_API void report_to_journal(const char* function, int line, const char* message);

// A ready-made handler: syslog(3) at LOG_ERR, "<function>[<line>]: <message>",
// with the program's openlog() settings, if any.
BMSG_API void report_to_syslog(const char* function, int line, const char* message);

// Writes `line` and a line break to stderr with one write. When stderr is
// the systemd journal (the stream JOURNAL_STREAM names), the line starts
// with "<3>", which the journal takes as the level err and removes; on a
// terminal, a file or a pipe it is written as it is.
BMSG_API void write_error_line(const std::string& line);

} // namespace bMSG

#endif
