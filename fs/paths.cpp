#include "fs/paths.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <regex>

#include "fs/watchdog_guard.h"
#include "platform/strings/tokenize.h"

namespace fsutil {

bool exists(const std::string& path) {
    struct stat status;
    WatchdogGuard guard;
    return stat(path.c_str(), &status) == 0;
}

bool isDirectory(const std::string& path) {
    if (!exists(path)) {
        return false;
    }
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        return false;
    }
    const bool readEntry = readdir(directory) != nullptr;
    closedir(directory);
    return readEntry;
}

namespace {

bool makeOneDirectory(const std::string& path, mode_t mode) {
    WatchdogGuard guard;
    return mkdir(path.c_str(), mode) == 0;
}

}  // namespace

bool makeDirectory(const std::string& path, mode_t mode, bool recursive) {
    if (exists(path)) {
        return true;
    }
    if (!recursive) {
        return makeOneDirectory(path, mode);
    }
    std::string prefix = !path.empty() && path[0] == '/' ? "/" : "";
    for (const std::string& field : lum::tokenize(path, '/', 0)) {
        if (field.empty()) {
            continue;
        }
        if (!prefix.empty() && prefix.back() != '/') {
            prefix += '/';
        }
        prefix += field;
        if (!exists(prefix) && !makeOneDirectory(prefix, mode)) {
            return false;
        }
    }
    return true;
}

std::string lastPathComponent(const std::string& path) {
    const std::vector<std::string> fields = lum::tokenize(path, '/', 0);
    return fields.empty() ? std::string() : fields.back();
}

std::string directoryPart(const std::string& path) {
    const std::string last = lastPathComponent(path);
    if (last.empty()) {
        return path;
    }
    const size_t at = path.rfind(last);
    return at == std::string::npos ? std::string() : path.substr(0, at);
}

std::string uniquePath(const std::string& path) {
    if (!exists(path)) {
        return path;
    }
    for (unsigned n = 1;; ++n) {
        char suffix[256];
        snprintf(suffix, sizeof suffix, "-%u", n);
        std::string candidate = path + suffix;
        if (!exists(candidate)) {
            return candidate;
        }
    }
}

std::string uniquePathBeforeExtension(const std::string& path) {
    static const std::regex sNamePattern(R"(^([/_\-[:alnum:]]*)(.*))", std::regex::ECMAScript);
    if (!exists(path)) {
        return path;
    }
    std::smatch match;
    if (!std::regex_match(path, match, sNamePattern)) {
        return std::string();
    }
    for (unsigned i = 1;; ++i) {
        std::string candidate = match.str(1) + "-" + std::to_string(i) + match.str(2);
        if (!exists(candidate)) {
            return candidate;
        }
    }
}

bool changeMode(const std::string& path, mode_t mode) {
    WatchdogGuard guard;
    return chmod(path.c_str(), mode) == 0;
}

bool renamePath(const std::string& oldPath, const std::string& newPath) {
    WatchdogGuard guard;
    return rename(oldPath.c_str(), newPath.c_str()) == 0;
}

}  // namespace fsutil
