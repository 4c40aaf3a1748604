// Pieces shared by `bmsg record`, `play`, `info` and `export`.
#ifndef BMSG_TOOLS_BMSG_RECORD_H
#define BMSG_TOOLS_BMSG_RECORD_H

#include "bmsg_tool.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace recording {
class File;
}

namespace bmsg_tool {

// Whether `name` matches one of the glob `patterns` (fnmatch).
bool matches(const std::vector<std::string>& patterns, const std::string& name);

// Microseconds as "12.345 s".
std::string seconds_text(int64_t us);

// Registrations of bmsg_play.cpp and bmsg_info.cpp (export included).
void add_play_command(CLI::App& app, Action& action);
void add_info_commands(CLI::App& app, Action& action);

// bmsg_seal.cpp: keygen; a recording opened with the secret key in
// `key_file` (none when empty), or null after a line on stderr; with
// `contents` a sealed one opened without its key is refused too.
void add_keygen_command(CLI::App& app, Action& action);
std::unique_ptr<recording::File> open_recording(const std::string& path, const std::string& key_file, bool contents);
// --key SECRET_KEY_FILE of the commands that read payloads and pixels.
void add_key_option(CLI::App* sub, std::string& key_file);

} // namespace bmsg_tool

#endif
