#include "platform/systemlog/system_log.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <mutex>
#include <set>
#include <string>

#include "platform/posix/file_util.h"
#include "platform/strings/format.h"

namespace systemlog {

struct HandleData {
    std::string subsystem;
    std::string category;

    bool operator<(const HandleData& other) const {
        return subsystem != other.subsystem ? subsystem < other.subsystem
                                            : category < other.category;
    }
};

namespace {

std::atomic<bool> sEnabled[2] = {true, true};
std::atomic<int> sFd{STDERR_FILENO};

// Serialises whole lines: a single write(2) is atomic for pipes only up to
// PIPE_BUF, and a short write must be finished before another line starts.
std::mutex sWriteMutex;

struct Registry {
    std::mutex mutex;
    std::set<HandleData> handles;  // set elements never move: handles stay valid
};

// Never destroyed, so that loggers used from static destructors still work.
Registry& registry() {
    static Registry* const sRegistry = new Registry;
    return *sRegistry;
}

int indexOf(Level level) {
    return level == Level::kError ? 1 : 0;
}

void writeLine(int fd, const std::string& line) {
    std::lock_guard lock(sWriteMutex);
    // A failure has nowhere left to be reported.
    (void)platform::writeAll(fd, line.data(), line.size());
}

}  // namespace

Handle create(const char* subsystem, const char* category) {
    Registry& reg = registry();
    std::lock_guard lock(reg.mutex);
    return &*reg.handles.insert(HandleData{subsystem, category}).first;
}

const char* subsystemOf(Handle handle) {
    return handle->subsystem.c_str();
}

const char* categoryOf(Handle handle) {
    return handle->category.c_str();
}

bool isEnabled(Handle, Level level) {
    return sEnabled[indexOf(level)].load(std::memory_order_relaxed);
}

void setEnabled(Level level, bool enabled) {
    sEnabled[indexOf(level)].store(enabled, std::memory_order_relaxed);
}

void write(Handle handle, Level level, const char* format, ...) {
    if (!isEnabled(handle, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    const std::string message = platform::stringPrintfV(format, args);
    va_end(args);

    // A message may end its own line; every other line feed is escaped.
    size_t length = message.size();
    if (length > 0 && message[length - 1] == '\n') {
        --length;
    }
    std::string line = level == Level::kError ? "<3>" : "<5>";
    line.reserve(line.size() + length + 1);
    for (size_t i = 0; i < length; ++i) {
        if (message[i] == '\n') {
            line += "\\n";
        } else {
            line += message[i];
        }
    }
    line += '\n';
    writeLine(sFd.load(std::memory_order_relaxed), line);
}

int redirectForTesting(int fd) {
    return sFd.exchange(fd);
}

}  // namespace systemlog
