#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#include "platform/VkHandle.h"
#include "platform/VkResult.h"

// Path and file helpers with the platform's path-string semantics.
namespace VkFile {

// Joins a component to a folder path with exactly one "/" between them; an empty
// component leaves the folder as it is ("/" + "x" is "/x").
std::string join(const std::string& folder, const std::string& component);
// The last component ("/a/b.txt" -> "b.txt"; trailing slashes ignored; "/" -> "/").
std::string lastPathComponent(const std::string& path);
// The folder part ("/a/b.txt" -> "/a"; "b.txt" -> ""; "/b" -> "/").
std::string deletingLastPathComponent(const std::string& path);
// Extension of the last component without the dot ("a.tar.gz" -> "gz"; ".profile" -> "").
std::string pathExtension(const std::string& path);
// The path without the extension of its last component.
std::string deletingPathExtension(const std::string& path);
// Splits a path into its non-empty components.
std::vector<std::string> components(const std::string& path);

// True when something exists at the path (links followed); isDirectory tells what.
bool exists(const std::string& path, bool* isDirectory = nullptr);
// True when something exists at the path itself (a dangling link counts).
bool existsNoFollow(const std::string& path);
// Creates a folder; with parents, every missing parent too. True when it exists after.
bool createDirectory(const std::string& path, bool withParents, mode_t mode = 0755);
// Names inside a folder, in the order the file system lists them (no "." and "..").
VkResult<std::vector<std::string>> listDirectory(const std::string& path);
// The same for a folder already open (the descriptor stays open and unmoved).
VkResult<std::vector<std::string>> listDirectory(int folderFd);

// Reads a whole file (links followed), refusing files larger than maxBytes.
VkResult<std::string> readAll(const std::string& path, size_t maxBytes = 64u << 20,
                              struct stat* info = nullptr);
// Writes bytes to a temporary file beside the target, flushes it and renames it over
// the target, so readers see either the old or the new contents, never a mix.
VkResult<void> writeAtomically(const std::string& path, const void* bytes, size_t size,
                               mode_t mode = 0644);
VkResult<void> writeAtomically(const std::string& path, const std::string& bytes,
                               mode_t mode = 0644);
// The same inside a folder already open, the final name never followed: a link there is
// refused on reading and replaced itself (never what it names) on writing. `label` names the
// file in errors.
VkResult<std::string> readAllAt(int folderFd, const std::string& name, const std::string& label,
                                size_t maxBytes = 64u << 20, struct stat* info = nullptr);
VkResult<void> writeAtomicallyAt(int folderFd, const std::string& name, const std::string& label,
                                 const std::string& bytes, mode_t mode = 0644);
// Opens the folder `name` inside `parent` (a path, followed as given: the user chose it)
// without following a link in its place. With `make`, whatever else lies under that name (a
// file, a link someone swapped in) is removed, the link itself and never what it names, and
// a folder made instead with `mode`; a missing parent is made too, with the same mode.
VkResult<VkFd> openOwnFolder(const std::string& parent, const std::string& name, bool make,
                             mode_t mode = 0700);
// Copies a regular file; fails when the target exists.
VkResult<void> copyFile(const std::string& from, const std::string& to);
// Removes a file, link or folder tree without following links.
VkResult<void> removeTree(const std::string& path);

}  // namespace VkFile
