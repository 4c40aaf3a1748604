// bmsg(1), written from the tool's own command line so that every command
// and option the parser knows is on the page.
#include "bmsg_tool.h"

#include <cctype>
#include <ostream>

namespace bmsg_tool {

const char* const doc_dir = "/usr/share/doc/bmsg-tools";

namespace {

// Text as roff reads it: backslashes and minus signs escaped, no line taken
// for a request.
std::string roff(const std::string& text)
{
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && (c == '.' || c == '\''))
            out += "\\&";
        out += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
        line_start = c == '\n';
    }
    return out;
}

// "\fB-t\fR, \fB--timeout\fR \fISECONDS\fR"
std::string option_tag(const CLI::Option& o)
{
    std::string tag;
    for (const auto& s : o.get_snames())
        tag += (tag.empty() ? "" : ", ") + std::string("\\fB\\-") + roff(s) + "\\fR";
    for (const auto& l : o.get_lnames())
        tag += (tag.empty() ? "" : ", ") + std::string("\\fB\\-\\-") + roff(l) + "\\fR";
    if (o.get_expected_min() > 0) {
        // The value's name without the checks CLI11 appends (":NONNEGATIVE").
        const std::string type = o.get_type_name();
        tag += " \\fI" + roff(type.substr(0, type.find(':'))) + "\\fR";
    }
    return tag;
}

std::string synopsis(const CLI::App& app, const std::string& path)
{
    std::string line = "\\fB" + roff(path) + "\\fR";
    if (!app.get_options([&](const CLI::Option* o) {
             return o->nonpositional() && o != app.get_help_ptr() && !o->get_group().empty();
         }).empty())
        line += " [\\fIOPTIONS\\fR]";
    for (const CLI::Option* o : app.get_options([](const CLI::Option* o) { return !o->nonpositional(); })) {
        const std::string name = "\\fI" + roff(o->get_name(true)) + "\\fR" +
                                 (o->get_items_expected_max() > 1 ? "..." : "");
        line += " " + (o->get_required() ? name : "[" + name + "]");
    }
    if (!app.get_subcommands([](const CLI::App* s) { return !s->get_name().empty(); }).empty())
        line += " \\fICOMMAND\\fR";
    return line + "\n";
}

// Options (the hidden ones and -h aside) and described positionals.
void write_options(const CLI::App& app, std::ostream& out, bool with_help)
{
    for (const CLI::Option* o : app.get_options()) {
        if (o->get_group().empty() || (o == app.get_help_ptr() && !with_help) ||
            (!o->nonpositional() && o->get_description().empty()))
            continue;
        out << ".TP\n"
            << (o->nonpositional() ? option_tag(*o) : "\\fI" + roff(o->get_name(true)) + "\\fR") << "\n"
            << roff(o->get_description()) << (o->get_required() && o->nonpositional() ? "; required" : "")
            << "\n";
    }
}

void write_command(const CLI::App& app, const std::string& path, std::ostream& out)
{
    out << ".SS " << roff(path.substr(path.find(' ') + 1)) << "\n"
        << synopsis(app, path) << ".PP\n"
        << roff(app.get_description()) << "\n";
    write_options(app, out, false);
    if (!app.get_footer().empty())
        out << ".PP\n" << roff(app.get_footer()) << "\n";
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App* s) { return !s->get_name().empty(); }))
        write_command(*sub, path + " " + sub->get_name(), out);
}

} // namespace

void write_man_page(const CLI::App& app, std::ostream& out)
{
    // NAME wants "bmsg \- what it does": the description's first sentence,
    // lower case and without its full stop.
    std::string what = app.get_description().substr(0, app.get_description().find('\n'));
    if (!what.empty()) {
        what[0] = static_cast<char>(tolower(what[0]));
        what = what.substr(0, what.find_last_not_of('.') + 1);
    }
    const std::string docs = roff(doc_dir);

    out << ".\\\" Written by bmsg --man-page from the tool's command line.\n"
        << ".TH BMSG 1 \"\" \"bmsg " BMSG_VERSION "\" \"User Commands\"\n"
        << ".ad l\n.nh\n"  // no hyphens put into paths and option names
        << ".SH NAME\n" << app.get_name() << " \\- " << roff(what) << "\n"
        << ".SH SYNOPSIS\n" << synopsis(app, app.get_name()) << "[\\fIARGUMENTS\\fR]\n"
        << ".SH DESCRIPTION\n" << roff(app.get_description()) << "\n"
        << ".SH OPTIONS\n";
    write_options(app, out, true);
    out << ".SH COMMANDS\n"
        << "Each command also takes \\fB\\-h\\fR, \\fB\\-\\-help\\fR.\n";
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App* s) { return !s->get_name().empty(); }))
        write_command(*sub, app.get_name() + " " + sub->get_name(), out);
    out << ".SH EXIT STATUS\n"
        << ".TP\n.B 0\nDone.\n"
        << ".TP\n.B 1\nThe bus operation failed, said in one line on stderr: no server, a refused "
           "login or command, the server lost. Also \\fBget\\fR without the setting, \\fBpop\\fR and "
           "\\fBsample recv\\fR with nothing to take (in time), \\fBsample send\\fR not taken in "
           "time or interrupted, \\fBplay\\fR that did not replay everything, and a recording that "
           "cannot be read or written.\n"
        << ".TP\n.B 2\nBad usage: an unknown command or option, a missing or invalid argument.\n"
        << ".SH ENVIRONMENT\n"
        << ".TP\n.B BMSG_PASSWORD\n"
        << "The password of the user named by \\fB\\-\\-user\\fR (\\fB\\-\\-user default\\fR: the server's default user), read when \\fB\\-\\-askpass\\fR is "
           "not given. Set without \\fB\\-\\-user\\fR it is refused (exit status 1): whose it is "
           "cannot be told. Passwords are never taken from the command line, which every local "
           "user can read in /proc.\n"
        << ".SH FILES\n"
        << ".TP\n.I " << docs << "/recording.md\n"
        << "What \\fBrecord\\fR keeps, its limits, the file; \\fBinfo\\fR, \\fBexport\\fR and \\fBplay\\fR.\n"
        << ".TP\n.I " << docs << "/security.md\n"
        << "The device's Redis users, one per role, and their passwords; the shared memory's side.\n"
        << ".SH SEE ALSO\n"
        << ".BR redis\\-cli (1),\n.BR redis\\-server (1)\n";
}

} // namespace bmsg_tool
