#include "fs/directories.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "fs/error_log.h"
#include "fs/paths.h"
#include "fs/tree_walk.h"
#include "fs/watchdog_guard.h"
#include "platform/strings/tokenize.h"

namespace fsutil {

namespace {

using internal::isDotOrDotDot;
using internal::OpenDirectory;

// A removal walk: it stays in its tree, each level under a guard.
class Removal final : public internal::TreeVisitor {
  public:
    bool staysInTree() const override { return true; }
    bool guardsEachLevel() const override { return true; }
    bool visitDot(const OpenDirectory&, const char*) override { return true; }

    // remove(3) relative to the directory: unlink, and rmdir for a directory,
    // which goes only if it is empty.
    bool visitEntry(const OpenDirectory& directory, const char* name) override {
        WatchdogGuard guard;
        return unlinkat(directory.fd(), name, 0) == 0 ||
               (errno == EISDIR && unlinkat(directory.fd(), name, AT_REMOVEDIR) == 0);
    }

    // A directory the walk cannot read (no permission, no descriptor left)
    // goes if it is empty, and is a failure otherwise.
    bool visitUnreadableDirectory(const OpenDirectory& directory, const char* name) override {
        return visitEntry(directory, name);
    }

    // A subdirectory whose entries are all gone is removed; whether that works
    // does not change the result, as for the top of the tree. One that was
    // not walked (a mount point, or a failure below) stays.
    bool leaveDirectory(const OpenDirectory& parent, const char* name, bool walked) override {
        if (walked) {
            WatchdogGuard guard;
            static_cast<void>(unlinkat(parent.fd(), name, AT_REMOVEDIR));
        }
        return walked;
    }
};

// Whether the status of `entry` changed at least `maxAgeSeconds` before `now`.
bool isDue(const OpenDirectory& directory, const std::string& name, time_t now,
           uint64_t maxAgeSeconds) {
    struct stat status;
    return fstatat(directory.fd(), name.c_str(), &status, 0) == 0 &&
           difftime(now, status.st_ctime) >= static_cast<double>(maxAgeSeconds);
}

}  // namespace

void listDirectory(const std::string& directory, std::vector<std::string>& names) {
    WatchdogGuard guard;
    const internal::DirStream stream(opendir(directory.c_str()));
    if (stream == nullptr) {
        return;
    }
    // The names are packed into one buffer first and become strings once
    // their number is known: for a large folder, growing the list one string
    // at a time costs a tenth of the listing itself, packing a fiftieth.
    std::string packed;
    std::vector<size_t> ends;
    while (const dirent* entry = readdir(stream.get())) {
        packed += internal::entryName(*entry);
        ends.push_back(packed.size());
    }
    names.reserve(names.size() + ends.size());
    size_t start = 0;
    for (const size_t end : ends) {
        names.emplace_back(packed, start, end - start);
        start = end;
    }
}

bool findMatching(const std::string& directory, const std::regex& expression,
                  std::vector<std::string>& names, bool includeSymlinks) {
    const internal::DirStream stream(opendir(directory.c_str()));
    if (stream == nullptr) {
        const int error = errno;
        internal::logError("Error %s (%s)\n", directory.c_str(), strerror(error));
        return false;
    }
    bool matched = false;
    while (const dirent* entry = readdir(stream.get())) {
        std::string name(internal::entryName(*entry));
        if (isDotOrDotDot(name)) {
            continue;
        }
        if (!std::regex_match(name, expression)) {
            continue;
        }
        // Only a name that matches costs a look at its type. An entry whose
        // type cannot be read counts as no link.
        struct stat status;
        if (!includeSymlinks && lstat((directory + "/" + name).c_str(), &status) == 0 &&
            S_ISLNK(status.st_mode)) {
            continue;
        }
        names.push_back(std::move(name));
        matched = true;
    }
    return matched;
}

bool removePath(const std::string& path) {
    WatchdogGuard guard;
    return remove(path.c_str()) == 0 || unlink(path.c_str()) == 0;
}

bool removeRecursive(const std::string& path) {
    WatchdogGuard outer;
    if (!exists(path)) {
        // A link whose target is missing is gone only once the link is.
        struct stat status;
        return lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode) || removePath(path);
    }
    {
        const OpenDirectory top(path, /*followLinks=*/false);
        if (top.isUnreadableDirectory()) {
            return removePath(path);
        }
        Removal removal;
        if (!internal::walkTree(top, removal)) {
            return false;
        }
    }
    static_cast<void>(removePath(path));
    return true;
}

bool removeOlderThan(const std::string& directory, uint64_t maxAgeSeconds) {
    const OpenDirectory top(directory, /*followLinks=*/false);
    const time_t now = time(nullptr);
    Removal removal;
    for (const internal::ListedEntry& entry : top.entries()) {
        if (isDotOrDotDot(entry.name) ||
            (maxAgeSeconds != 0 && !isDue(top, entry.name, now, maxAgeSeconds))) {
            continue;
        }
        if (!internal::walkEntry(top, entry, removal)) {
            return false;
        }
    }
    return true;
}

std::string moveAside(const std::string& source, const std::string& target) {
    if (!isDirectory(source)) {
        return std::string();
    }
    std::string free = uniquePath(target);
    return rename(source.c_str(), free.c_str()) == 0 ? free : std::string();
}

std::string highestNumberedPath(const std::string& path) {
    const size_t last = path.find_last_not_of('/');
    const std::string stripped = last == std::string::npos ? path : path.substr(0, last + 1);
    const std::string directory = directoryPart(stripped);
    if (stripped.empty() || directory.empty()) {
        return path;
    }
    const std::regex expression(lastPathComponent(stripped) + "-[[:alnum:]]*");
    std::vector<std::string> names;
    if (!findMatching(directory, expression, names, /*includeSymlinks=*/false)) {
        return path;
    }
    uint32_t highest = 0;
    for (const std::string& name : names) {
        const std::string suffix = lum::tokenize(name, '-', 0).back();
        highest = std::max(highest, static_cast<uint32_t>(strtol(suffix.c_str(), nullptr, 0)));
    }
    return stripped + "-" + std::to_string(highest) + "/";
}

}  // namespace fsutil
