#include "logging/flat_file_log_writer.h"

#include <errno.h>
#include <sys/file.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <string_view>

#include "platform/posix/eintr.h"
#include "platform/posix/file_util.h"
#include "platform/posix/safe_open.h"

namespace {

// Lines that fit are formatted on the stack; longer ones take an allocation.
constexpr size_t kLineBufferSize = 512;

// Copies `text` to `out`, which has room for it.
char* appendTo(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

// The log file at `path`, locked for this process and truncated, or why not.
platform::CheckedFd openLockedAndTruncated(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folderPath = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    platform::CheckedFd folder = platform::openTrustedFolder(folderPath);
    if (!folder.fd.valid()) {
        return folder;
    }
    platform::CheckedFd file = platform::openOwnFile(folder.fd.get(), folderPath, name, 0666);
    if (!file.fd.valid()) {
        return file;
    }
    if (platform::retryOnEintr([&] { return flock(file.fd.get(), LOCK_EX | LOCK_NB); }) != 0) {
        const int error = errno;
        return {.error = error == EWOULDBLOCK ? 0 : error,
                .why = error == EWOULDBLOCK ? path + " is kept by another process"
                                            : path + ": cannot lock it: " + strerror(error)};
    }
    if (ftruncate(file.fd.get(), 0) != 0) {
        const int error = errno;
        return {.error = error, .why = path + ": cannot truncate it: " + strerror(error)};
    }
    return file;
}

}  // namespace

FlatFileLogWriter::FlatFileLogWriter(const std::string& path)
    : lum::SharedSynchronizable<FlatFileLogWriter>("FlatFileLogWriter", DISPATCH_QUEUE_SERIAL,
                                                   nullptr),
      path_(path) {}

FlatFileLogWriter::~FlatFileLogWriter() = default;

void FlatFileLogWriter::open(const std::string& newPath) {
    execute_sync([&] {
        if (!newPath.empty()) {
            path_ = newPath;
        }
        if (file_.valid()) {
            failed_ = true;
            openFailure_ = {EBUSY, path_ + ": another file is open already"};
        } else {
            platform::CheckedFd file = openLockedAndTruncated(path_);
            file_ = std::move(file.fd);
            failed_ = !file_.valid();
            openFailure_ = {file.error, std::move(file.why)};
        }
        if (file_.valid()) {
            append(pendingText_.data(), pendingText_.size());
        }
        pendingText_.clear();
    });
}

void FlatFileLogWriter::close() {
    execute_sync([&] {
        // The descriptor is released even when close reports a failure.
        if (!file_.valid() || ::close(file_.release()) != 0) {
            failed_ = true;
        }
    });
}

void FlatFileLogWriter::writeMessage(const lum::LogMessage& message) {
    execute_sync([&] { writeLine(message); });
}

FlatFileLogWriter::OpenFailure FlatFileLogWriter::openFailure() const {
    OpenFailure failure;
    execute_sync([&] { failure = openFailure_; });
    return failure;
}

bool FlatFileLogWriter::fileStreamFailedForTesting() const {
    bool failed = false;
    execute_sync([&] { failed = failed_; });
    return failed;
}

void FlatFileLogWriter::append(const char* text, size_t size) {
    if (!file_.valid()) {
        pendingText_.append(text, size);
    } else if (!failed_ && size > 0) {
        failed_ = !platform::writeAll(file_.get(), text, size);
    }
}

void FlatFileLogWriter::writeLine(const lum::LogMessage& message) {
    // Formatted by hand rather than through a stream's locale-aware number
    // output: this is the hot path. to_chars with a precision rounds exactly
    // as "%.3f" does in the classic locale, "-0.000" for tiny negatives
    // included.
    char line[kLineBufferSize];
    char* out =
        std::to_chars(line, line + kLineBufferSize, static_cast<double>(message.timestampNs) * 1e-9,
                      std::chars_format::fixed, 3)
            .ptr;
    *out++ = ':';
    char scratch[4];
    out = appendTo(out, lum::levelName(message.level, scratch));
    *out++ = ':';

    const std::string& first = message.firstText;
    const std::string& second = message.secondText;
    if (first.size() + second.size() + 2 <= static_cast<size_t>(line + kLineBufferSize - out)) {
        out = appendTo(out, first);
        *out++ = ':';
        out = appendTo(out, second);
        *out++ = '\n';
        append(line, static_cast<size_t>(out - line));
        return;
    }
    // One write all the same, so that no other process's write can come
    // between the pieces of a line.
    std::string whole(line, out);
    whole.append(first).append(1, ':').append(second).append(1, '\n');
    append(whole.data(), whole.size());
}
