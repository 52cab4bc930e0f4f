// Changing one key of a domain's file, atomically.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "platform/posix/eintr.h"
#include "platform/posix/file_util.h"
#include "platform/posix/unique_fd.h"
#include "platform/telephony/preferences_file.h"

namespace lum {

namespace {

using Document = nlohmann::ordered_json;

std::string systemError(const std::string& what) {
    return what + ": " + strerror(errno);
}

// A whole number is written as a JSON integer, so that it reads back as one
// in any other tool.
Document toJson(const PreferenceValue& value) {
    if (const double* number = std::get_if<double>(&value);
        number != nullptr && std::trunc(*number) == *number && std::fabs(*number) < 0x1p63) {
        return static_cast<int64_t>(*number);
    }
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
    TemporaryFile temporary(folder + "/." + name + ".XXXXXX");
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
                          std::string& error) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    if (!platform::makeDirectories(folder, 0755)) {
        error = systemError("cannot create " + folder);
        return EditResult::kFailed;
    }
    const platform::UniqueFd folderFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folderFd.valid() ||
        platform::retryOnEintr([&] { return flock(folderFd.get(), LOCK_EX); }) != 0) {
        error = systemError("cannot lock " + folder);
        return EditResult::kFailed;
    }

    std::string bytes;
    struct stat status {};
    const FileReadResult read = readPreferencesFile(path, bytes, status);
    Document document = Document::object();
    mode_t mode = newFileMode;
    if (read == FileReadResult::kRead) {
        // Only what readers accept is edited; that also bounds the depth of
        // what is built and written here.
        PreferenceMap values;
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
    } else if (document.erase(key) == 0) {
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
