// Small path operations on byte-string paths: existence, directory creation,
// splitting, free names, and a path's mode and name. Existence tests, directory
// creation, mode changes and renames run under a WatchdogGuard, one guard per
// system call; the listing step of isDirectory does not.
//
// Paths are passed to the system unchanged (no normalisation, no encoding). A
// file-system failure is a result (false, or an empty string), never an
// exception; only allocation and regex errors propagate.
#pragma once

#include <sys/types.h>

#include <string>

namespace fsutil {

// Whether `path` names anything (links followed): stat(2) succeeds.
[[nodiscard]] bool exists(const std::string& path);

// Whether `path` exists and can be opened and read as a directory.
[[nodiscard]] bool isDirectory(const std::string& path);

// Creates the directory `path` with `mode` (less the umask). Returns true at
// once when `path` already exists, whatever it is, leaving it unchanged.
// With `recursive`, creates the missing leading directories too, testing
// "/a", "/a/b", ... in turn (empty fields from doubled or trailing '/' are
// skipped); a failure stops there and keeps the directories already made. An
// empty path has nothing to create and gives true when recursive (it names
// the current directory, as in makeDirectory(directoryPart("x.log"), ...)).
[[nodiscard]] bool makeDirectory(const std::string& path, mode_t mode, bool recursive);

// The text after the last '/': "/a/b/c.log" gives "c.log", "/a/b/" gives "",
// "name" gives "name", "" gives "".
[[nodiscard]] std::string lastPathComponent(const std::string& path);

// The text up to and including the last '/' before the last component:
// "/a/b/c.log" gives "/a/b/", "c.log" gives "". When the last component is
// empty (trailing '/' or empty path) the whole path is returned.
[[nodiscard]] std::string directoryPart(const std::string& path);

// `path` if nothing exists there, else the first of "path-1", "path-2", ...
// that does not exist.
[[nodiscard]] std::string uniquePath(const std::string& path);

// `path` if nothing exists there, else the first free name with "-1", "-2",
// ... inserted after the leading run of letters, digits, '/', '_' and '-':
// "/logs/run.log" gives "/logs/run-1.log", "/d/n.tar.gz" gives "/d/n-1.tar.gz".
// Returns "" when an existing path contains a line feed or carriage return,
// which the name pattern does not match.
[[nodiscard]] std::string uniquePathBeforeExtension(const std::string& path);

// chmod(2) under a guard (links followed); true when it succeeded.
[[nodiscard]] bool changeMode(const std::string& path, mode_t mode);

// rename(2) under a guard: replaces whatever `newPath` names, as rename does.
[[nodiscard]] bool renamePath(const std::string& oldPath, const std::string& newPath);

}  // namespace fsutil
