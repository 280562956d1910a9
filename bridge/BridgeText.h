#pragma once

// Small text and file helpers every bridge call rests on. A file that cannot be read is empty; a
// write that fails leaves the old file and says why.

#include <map>
#include <string>
#include <vector>

namespace tb {

std::vector<char> read_file(const std::string &path);
// Writes path + ".tmp", flushes it to disk and renames it over path; the old file stays when
// any step fails, and *error (when not null) receives the errno of that step.
bool write_file(const std::string &path, const std::vector<char> &bytes, int *error = nullptr);
bool write_file(const std::string &path, const std::string &text, int *error = nullptr);
// What the user reads about a write that failed with this errno: "нет места на диске".
const char *write_error_text(int error);
// Splits at newlines, trims blanks (and carriage returns) on both sides, drops empty lines.
std::vector<std::string> lines(const char *text);
// "key=value" lines split at the first "="; a later key wins; lines without "=" are dropped.
// Blanks before the key go; the value is the rest of the line as it is, but for the "\r" of a
// CRLF line end.
std::map<std::string, std::string> options(const char *text);
// A malloc copy that tb_free releases.
char *dup(const std::string &text);

} // namespace tb
