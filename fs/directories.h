// Operations on the entries of a directory: listing, matching names, removing
// a path, a whole tree or the entries past an age, and rotating folders
// (moving one aside to a free numbered name, finding the highest-numbered
// sibling).
//
// An entry's full path is directory + "/" + name. "." and ".." are ordinary
// entries of a listing. Lists of names belong to the caller: operations append
// and never clear. A file-system failure is a result, never an exception; only
// allocation and regex errors propagate, with every guard disarmed and every
// descriptor closed on the way out.
//
// The removals never reach outside the tree they are given. A symbolic link,
// the path given included, is removed as a link and never followed, also
// when another process swaps a directory for a link while the removal runs
// (see tree_walk.h); only a trailing '/' makes a given path name what a link
// there points to. A directory on which something is mounted is never
// entered: it stays, and the removal fails there.
#pragma once

#include <stdint.h>

#include <regex>
#include <string>
#include <vector>

namespace fsutil {

// Appends the name of every entry of `directory`, "." and ".." included, in the
// system's order. A directory that cannot be opened adds nothing. One guard
// covers the whole listing.
void listDirectory(const std::string& directory, std::vector<std::string>& names);

// Appends, in listing order, the names in `directory` (not "." or "..") that
// `expression` matches as a whole; symbolic links are left out unless
// `includeSymlinks`. Returns whether anything matched. A directory that cannot
// be opened gives false and the system-log error "Error <directory> (<reason>)".
// Unguarded.
[[nodiscard]] bool findMatching(const std::string& directory, const std::regex& expression,
                                std::vector<std::string>& names, bool includeSymlinks);

// Removes a file, a link or an empty directory: remove(3), then unlink(2) when
// that fails, under one guard. True when either succeeded.
[[nodiscard]] bool removePath(const std::string& path);

// Removes `path` and everything under it, depth first in listing order. A
// missing path gives true. Stops with false at the first entry that cannot be
// removed (a mount point, a folder it cannot read that is not empty), keeping
// what was removed before it and everything after it. True once every entry
// is gone, even if `path` itself then cannot be removed.
// A guard stays armed over the whole removal, and over each subdirectory's;
// each listing and each removal has its own.
[[nodiscard]] bool removeRecursive(const std::string& path);

// Removes each entry of `directory` whose status changed at least
// `maxAgeSeconds` ago (stat(2), links followed, against time(2) read once after
// the listing); a subdirectory goes whole, whatever the age of its contents.
// Age 0 removes every entry without reading any status. Entries whose status
// cannot be read stay. False at the first removal that fails; true otherwise,
// also for a directory that cannot be listed or is a link.
[[nodiscard]] bool removeOlderThan(const std::string& directory, uint64_t maxAgeSeconds);

// Renames the directory `source` to uniquePath(target): `target`, or the first
// free one of target-1, target-2, ... Returns the new path; "" when `source`
// is not a directory or the rename fails. The existence tests are guarded.
[[nodiscard]] std::string moveAside(const std::string& source, const std::string& target);

// For /t/snap (trailing '/' ignored) with siblings snap-1, snap-7 and snap-x,
// returns "/t/snap-7/": the sibling named <base>-<letters and digits> whose
// suffix reads as the largest number (strtol, base 0, compared as unsigned
// 32-bit; a suffix without digits reads 0), rebuilt from that number, so
// snap-07 gives snap-7. Symbolic links are not counted. Returns `path`
// unchanged when there is no such sibling or no directory part. The base name
// is used as a regular expression as it stands; an invalid one throws
// std::regex_error. Unguarded.
[[nodiscard]] std::string highestNumberedPath(const std::string& path);

}  // namespace fsutil
