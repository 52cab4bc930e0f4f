// Reading a domain's file: where it is, how it is read without blocking, and
// the adapter's revalidated copy.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/posix/eintr.h"
#include "platform/posix/environment.h"
#include "platform/posix/unique_fd.h"
#include "platform/telephony/preferences.h"
#include "platform/telephony/preferences_file.h"

namespace lum {

namespace {

// What a change to the file would alter. Compared whole: no field alone is
// enough (a rename keeps times, an edit in place keeps the inode).
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    explicit FileIdentity(const struct stat& status)
        : device(status.st_dev),
          inode(status.st_ino),
          size(status.st_size),
          modified(status.st_mtim),
          changed(status.st_ctim) {}

    bool operator==(const FileIdentity& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               sameTime(modified, other.modified) && sameTime(changed, other.changed);
    }

    static bool sameTime(const timespec& a, const timespec& b) {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    }
};

std::string homeFolder() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr || entry.pw_dir == nullptr || entry.pw_dir[0] == '\0') {
        return {};
    }
    return entry.pw_dir;
}

}  // namespace

struct PreferencesAdapter::Snapshot {
    FileIdentity identity;
    // False when the file changed in the same clock tick as it was read: a
    // later change in that tick may keep the identity, so the copy cannot be
    // trusted and the next read parses again.
    bool settled = false;
    PreferenceMap values;
};

std::string preferencesFilePath(const std::string& domain) {
    if (auto path = platform::pathFromEnvironment("KEL_PREFERENCES_DIR", domain + ".json")) {
        return *path;
    }
    const std::string home = homeFolder();
    return home.empty() ? std::string() : home + "/.config/kel/" + domain + ".json";
}

FileReadResult readPreferencesFile(const std::string& path, std::string& bytes,
                                   struct stat& status) {
    // O_NONBLOCK: a FIFO put in the file's place must not hang the reader.
    platform::UniqueFd fd(platform::retryOnEintr(
        [&] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY); }));
    if (!fd.valid()) {
        return errno == ENOENT ? FileReadResult::kMissing : FileReadResult::kUnreadable;
    }
    if (fstat(fd.get(), &status) != 0) {
        return FileReadResult::kUnreadable;
    }
    if (!S_ISREG(status.st_mode)) {
        return FileReadResult::kNotRegular;
    }
    if (static_cast<uint64_t>(status.st_size) > kMaxPreferencesFileSize) {
        return FileReadResult::kTooLarge;
    }
    // Read to the end rather than st_size bytes: the file may be growing. One
    // byte more than the limit tells a file grown too large.
    bytes.resize(static_cast<size_t>(status.st_size) + 1);
    size_t length = 0;
    while (length <= kMaxPreferencesFileSize) {
        if (length == bytes.size()) {
            bytes.resize(std::min(bytes.size() * 2, kMaxPreferencesFileSize + 1));
        }
        const ssize_t got = platform::retryOnEintr(
            [&] { return read(fd.get(), bytes.data() + length, bytes.size() - length); });
        if (got < 0) {
            return FileReadResult::kUnreadable;
        }
        if (got == 0) {
            break;
        }
        length += static_cast<size_t>(got);
    }
    if (length > kMaxPreferencesFileSize) {
        return FileReadResult::kTooLarge;
    }
    bytes.resize(length);
    return FileReadResult::kRead;
}

std::string describeFileReadResult(FileReadResult result) {
    switch (result) {
        case FileReadResult::kRead:
        case FileReadResult::kMissing:
            break;
        case FileReadResult::kUnreadable:
            return std::string("cannot be read: ") + strerror(errno);
        case FileReadResult::kNotRegular:
            return "is not a regular file";
        case FileReadResult::kTooLarge:
            return "is larger than " + std::to_string(kMaxPreferencesFileSize) + " bytes";
    }
    return {};
}

bool loadPreferencesFile(const std::string& path, PreferenceMap& values, std::string& error) {
    values.clear();
    std::string bytes;
    struct stat status {};
    const FileReadResult result = readPreferencesFile(path, bytes, status);
    if (result == FileReadResult::kMissing) {
        return true;
    }
    if (result != FileReadResult::kRead) {
        error = describeFileReadResult(result);
        return false;
    }
    return parsePreferences(bytes, values, error);
}

PreferencesAdapter::PreferencesAdapter(const std::string& domain, const std::string& scope)
    : path_(scope == kPreferencesScopeCurrentUser ? preferencesFilePath(domain) : std::string()) {}

PreferencesAdapter::~PreferencesAdapter() = default;

std::optional<PreferenceValue> PreferencesAdapter::copyValue(const std::string& key) const {
    const std::shared_ptr<const Snapshot> snapshot = currentSnapshot();
    if (snapshot == nullptr) {
        return std::nullopt;
    }
    const auto found = snapshot->values.find(key);
    if (found == snapshot->values.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::shared_ptr<const PreferencesAdapter::Snapshot> PreferencesAdapter::currentSnapshot() const {
    struct stat status {};
    if (path_.empty() || stat(path_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return nullptr;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (snapshot_ != nullptr && snapshot_->settled &&
            snapshot_->identity == FileIdentity(status)) {
            return snapshot_;
        }
    }
    // File times come from the kernel's coarse clock: taken before the read,
    // a change time older than this tick cannot be shared by a later change.
    timespec readTick{};
    clock_gettime(CLOCK_REALTIME_COARSE, &readTick);
    std::string bytes;
    if (readPreferencesFile(path_, bytes, status) != FileReadResult::kRead) {
        return nullptr;
    }
    auto fresh = std::make_shared<Snapshot>(Snapshot{FileIdentity(status), false, {}});
    fresh->settled =
        status.st_ctim.tv_sec < readTick.tv_sec ||
        (status.st_ctim.tv_sec == readTick.tv_sec && status.st_ctim.tv_nsec < readTick.tv_nsec);
    std::string ignored;
    // A file that does not parse is kept as an empty copy, so that a broken
    // file is not parsed again on every read.
    static_cast<void>(parsePreferences(bytes, fresh->values, ignored));
    std::shared_ptr<const Snapshot> previous = fresh;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        snapshot_.swap(previous);
    }
    // The previous copy, if no other reader holds it, is freed here, outside
    // the lock.
    return fresh;
}

}  // namespace lum
