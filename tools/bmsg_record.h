// Pieces shared by `bmsg record`, `play`, `info` and `export`.
#ifndef BMSG_TOOLS_BMSG_RECORD_H
#define BMSG_TOOLS_BMSG_RECORD_H

#include "bmsg_tool.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bmsg_tool {

// Whether `name` matches one of the glob `patterns` (fnmatch).
bool matches(const std::vector<std::string>& patterns, const std::string& name);

// Microseconds as "12.345 s".
std::string seconds_text(int64_t us);

// Registrations of bmsg_play.cpp and bmsg_info.cpp (export included).
void add_play_command(CLI::App& app, Action& action);
void add_info_commands(CLI::App& app, Action& action);

} // namespace bmsg_tool

#endif
