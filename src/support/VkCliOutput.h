#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

// How the command-line programs print names that come from disk or from the network. A file
// name may hold any byte but "/" and NUL, and a trojan picks its own: printed as it is, a name
// with a newline could add a forged line to a report, and one with an escape sequence could
// rewrite the terminal.

// The text with the backslash, control characters (C0, DEL, C1), the format characters that
// reorder or break a line (bidirectional overrides, line and paragraph separators) or show as
// nothing (zero-width spaces and joiners, the byte order mark, the soft hyphen) and every
// byte that is not part of valid UTF-8 written as escapes: "\\", "\n", "\r", "\t", else "\xNN"
// for each byte. Readable UTF-8 stays as it is, and the escaping can be undone unambiguously.
std::string vkCliText(std::string_view text);

// True when the text is well-formed UTF-8 (no overlong forms, surrogates or code points
// above U+10FFFF).
bool vkIsUtf8(std::string_view text);

// Sets object[key] to the path (JSON output replaces bytes that are not UTF-8 by U+FFFD) and,
// only when the path is not UTF-8, object[key + "Base64"] to its exact bytes in Base64, so a
// reader can always get the file's real name back.
void vkJsonSetPath(nlohmann::json& object, const std::string& key, const std::string& path);

// The same for a list of paths: object[key + "Base64"], present only when some path is not
// UTF-8, lists the Base64 of each such path at its index and null for the others.
void vkJsonSetPaths(nlohmann::json& object, const std::string& key,
                    const std::vector<std::string>& paths);

// The JSON text of a value (indent < 0: one line); bytes that are not UTF-8 in any string are
// replaced by U+FFFD instead of failing.
std::string vkJsonText(const nlohmann::json& value, int indent = -1);
