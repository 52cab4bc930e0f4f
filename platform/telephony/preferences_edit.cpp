// Changing one key of a domain's file, atomically.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>

#include "platform/posix/eintr.h"
#include "platform/posix/file_util.h"
#include "platform/posix/unique_fd.h"
#include "platform/telephony/preferences_file.h"

namespace lum {

namespace {

using Document = nlohmann::ordered_json;

// An edit's temporary file is ".<name>" + this + six letters or digits (from
// mkostemp).
constexpr std::string_view kTemporaryMark = ".new-";

constexpr std::chrono::milliseconds kLongestPause(50);

std::string systemError(const std::string& what) {
    return what + ": " + strerror(errno);
}

// Takes the exclusive lock of the folder open at `fd`, waiting at most
// `timeout` for an edit of another process to end. flock has no time-out, so
// the lock is tried again after pauses that grow from 1 to 50 ms: an edit
// holds the lock for milliseconds, and a wait this way needs no signal or
// timer that the rest of the process could notice. Returns 0, or the error
// number: ETIMEDOUT when the time ran out.
[[nodiscard]] int lockFolder(int fd, std::chrono::milliseconds timeout) {
    using std::chrono::steady_clock;
    const steady_clock::time_point deadline = steady_clock::now() + timeout;
    for (std::chrono::milliseconds pause(1);; pause = std::min(2 * pause, kLongestPause)) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return 0;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return errno;
        }
        const steady_clock::time_point now = steady_clock::now();
        if (now >= deadline) {
            return ETIMEDOUT;
        }
        std::this_thread::sleep_for(std::min<steady_clock::duration>(pause, deadline - now));
    }
}

// Removes the temporary files that edits of the file `name` left when they
// died before renaming them. Call with the folder's lock held: a live edit
// holds it as long as its temporary file exists, so none is removed.
void removeDeadEditsFiles(int folderFd, const std::string& name) {
    const std::string prefix = "." + name + std::string(kTemporaryMark);
    platform::UniqueFd listFd(openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(
        listFd.valid() ? fdopendir(listFd.get()) : nullptr, closedir);
    if (folder == nullptr) {
        return;
    }
    static_cast<void>(listFd.release());
    while (const dirent* entry = readdir(folder.get())) {
        const std::string_view entryName = entry->d_name;
        if (entryName.size() == prefix.size() + 6 && entryName.starts_with(prefix) &&
            std::all_of(entryName.begin() + prefix.size(), entryName.end(),
                        [](char c) { return std::isalnum(static_cast<unsigned char>(c)); })) {
            unlinkat(folderFd, entry->d_name, 0);
        }
    }
}

// Keys that a listing shows unambiguously: not empty, no control characters.
bool isWritableKey(std::string_view key) {
    return !key.empty() && std::none_of(key.begin(), key.end(), [](char c) {
        return std::iscntrl(static_cast<unsigned char>(c));
    });
}

// A real is written with a fraction or an exponent (2.0, not 2), so that it
// reads back as a real.
Document toJson(const PreferenceValue& value) {
    return std::visit([](const auto& alternative) { return Document(alternative); }, value);
}

// Removes the temporary file unless it was renamed into place.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::string pathTemplate) : path_(std::move(pathTemplate)) {
        fd_.reset(mkostemp(path_.data(), O_CLOEXEC));
        if (!fd_.valid()) {
            path_.clear();
        }
    }
    ~TemporaryFile() {
        if (!path_.empty()) {
            unlink(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    void renamed() { path_.clear(); }

  private:
    std::string path_;
    platform::UniqueFd fd_;
};

bool replaceFile(int folderFd, const std::string& folder, const std::string& path,
                 const std::string& text, mode_t mode, std::string& error) {
    const std::string name = path.substr(path.rfind('/') + 1);
    TemporaryFile temporary(folder + "/." + name + std::string(kTemporaryMark) + "XXXXXX");
    if (temporary.fd() < 0) {
        error = systemError("cannot create a temporary file in " + folder);
        return false;
    }
    if (fchmod(temporary.fd(), mode) != 0 ||
        !platform::writeAll(temporary.fd(), text.data(), text.size()) ||
        platform::retryOnEintr([&] { return fsync(temporary.fd()); }) != 0) {
        error = systemError("cannot write " + temporary.path());
        return false;
    }
    if (rename(temporary.path().c_str(), path.c_str()) != 0) {
        error = systemError("cannot replace " + path);
        return false;
    }
    temporary.renamed();
    // Without this the rename itself may not survive a power cut.
    if (platform::retryOnEintr([&] { return fsync(folderFd); }) != 0) {
        error = systemError("cannot sync " + folder);
        return false;
    }
    return true;
}

}  // namespace

EditResult editPreference(const std::string& path, const std::string& key,
                          const std::optional<PreferenceValue>& value, mode_t newFileMode,
                          std::chrono::milliseconds lockTimeout, std::string& error) {
    if (value && !isWritableKey(key)) {
        error = "a key must not be empty or hold control characters such as a line feed";
        return EditResult::kFailed;
    }
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    const platform::UniqueFd folderFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int lockError = folderFd.valid() ? lockFolder(folderFd.get(), lockTimeout) : errno;
    if (lockError != 0) {
        errno = lockError;
        error = lockError == ETIMEDOUT
                    ? "gave up after " + std::to_string(lockTimeout.count()) +
                          " ms waiting for the lock on " + folder + ", held by another process"
                    : systemError("cannot lock " + folder);
        return EditResult::kFailed;
    }
    removeDeadEditsFiles(folderFd.get(), path.substr(slash + 1));

    std::string bytes;
    struct stat status {};
    const FileReadResult read = readPreferencesFile(path, bytes, status);
    Document document = Document::object();
    mode_t mode = newFileMode;
    PreferenceMap values;
    if (read == FileReadResult::kRead) {
        // Only what readers accept is edited; that also bounds the depth of
        // what is built and written here.
        if (!parsePreferences(bytes, values, error)) {
            error = path + " " + error;
            return EditResult::kFailed;
        }
        document = Document::parse(bytes);
        mode = status.st_mode & 07777;
    } else if (read != FileReadResult::kMissing) {
        error = path + " " + describeFileReadResult(read);
        return EditResult::kFailed;
    }

    if (value) {
        document[key] = toJson(*value);
    } else if (values.contains(key)) {
        document.erase(key);
    } else {
        return EditResult::kKeyAbsent;
    }
    std::string text;
    try {
        text = document.dump(4) + "\n";
    } catch (const nlohmann::json::exception&) {
        error = "keys and texts must be valid UTF-8";
        return EditResult::kFailed;
    }
    // Indentation grows with the depth: a file readers would refuse is not
    // written.
    if (text.size() > kMaxPreferencesFileSize) {
        error =
            path + " would be larger than " + std::to_string(kMaxPreferencesFileSize) + " bytes";
        return EditResult::kFailed;
    }
    return replaceFile(folderFd.get(), folder, path, text, mode, error) ? EditResult::kDone
                                                                        : EditResult::kFailed;
}

}  // namespace lum
