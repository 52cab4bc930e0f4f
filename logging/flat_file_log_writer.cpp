#include "logging/flat_file_log_writer.h"

#include <charconv>
#include <cstring>
#include <string_view>

namespace {

// Lines that fit go out in one write to the stream, so the flush that follows
// makes one write(2). Longer ones are handed over piece by piece.
constexpr size_t kLineBufferSize = 512;

// Appends `text` at `out`, which has room for it.
char* append(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
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
        if (fileStream_.is_open()) {
            fileStream_.setstate(std::ios::failbit);
        } else {
            // A successful open clears the stream state left by earlier failures.
            fileStream_.open(path_, std::ios::out);
        }
        std::string_view pending = pendingText_.view();
        fileStream_.write(pending.data(), static_cast<std::streamsize>(pending.size()));
        pendingText_.str("");
    });
}

void FlatFileLogWriter::close() {
    execute_sync([&] {
        if (!fileStream_.is_open()) {
            fileStream_.setstate(std::ios::failbit);
            return;
        }
        fileStream_.flush();
        const bool flushFailed = fileStream_.fail();
        // Closes the descriptor even when the buffered text cannot be written.
        fileStream_.close();
        if (flushFailed) {
            fileStream_.setstate(std::ios::failbit);
        }
    });
}

void FlatFileLogWriter::writeMessage(const lum::LogMessage& message) {
    execute_sync([&] { writeLine(message); });
}

bool FlatFileLogWriter::fileStreamFailedForTesting() const {
    bool failed = false;
    execute_sync([&] { failed = fileStream_.fail(); });
    return failed;
}

void FlatFileLogWriter::writeLine(const lum::LogMessage& message) {
    std::ostream& target =
        fileStream_.is_open() ? static_cast<std::ostream&>(fileStream_) : pendingText_;
    // Formatted by hand rather than through the stream's locale-aware number
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
    out = append(out, lum::levelName(message.level, scratch));
    *out++ = ':';

    const std::string& first = message.firstText;
    const std::string& second = message.secondText;
    const size_t rest = first.size() + second.size() + 2;
    if (rest <= static_cast<size_t>(line + kLineBufferSize - out)) {
        out = append(out, first);
        *out++ = ':';
        out = append(out, second);
        *out++ = '\n';
        target.write(line, out - line);
    } else {
        target.write(line, out - line);
        target.write(first.data(), static_cast<std::streamsize>(first.size()));
        target.put(':');
        target.write(second.data(), static_cast<std::streamsize>(second.size()));
        target.put('\n');
    }
    target.flush();
}
