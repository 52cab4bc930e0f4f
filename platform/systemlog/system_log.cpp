#include "platform/systemlog/system_log.h"

#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>

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

// Messages up to this size are formatted without touching the heap.
constexpr size_t kStackBufferSize = 1024;

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

void writeAll(int fd, const char* data, size_t size) {
    std::lock_guard lock(sWriteMutex);
    while (size > 0) {
        ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // nowhere left to report the failure
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
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
    char text[kStackBufferSize];
    std::unique_ptr<char[]> longText;
    const char* message = text;
    va_list args;
    va_start(args, format);
    va_list retry;
    va_copy(retry, args);
    int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0) {
        length = 0;
        text[0] = '\0';
    } else if (static_cast<size_t>(length) >= sizeof text) {
        longText = std::make_unique<char[]>(static_cast<size_t>(length) + 1);
        vsnprintf(longText.get(), static_cast<size_t>(length) + 1, format, retry);
        message = longText.get();
    }
    va_end(retry);

    // A message may end its own line; every other line feed is escaped.
    if (length > 0 && message[length - 1] == '\n') {
        --length;
    }
    size_t lineFeeds = 0;
    for (int i = 0; i < length; ++i) {
        lineFeeds += message[i] == '\n';
    }
    const char* prefix = level == Level::kError ? "<3>" : "<5>";
    const size_t lineSize = 3 + static_cast<size_t>(length) + lineFeeds + 1;
    char lineBuffer[kStackBufferSize + 8];
    std::unique_ptr<char[]> longLine;
    char* line = lineBuffer;
    if (lineSize > sizeof lineBuffer) {
        longLine = std::make_unique<char[]>(lineSize);
        line = longLine.get();
    }
    memcpy(line, prefix, 3);
    char* out = line + 3;
    for (int i = 0; i < length; ++i) {
        if (message[i] == '\n') {
            *out++ = '\\';
            *out++ = 'n';
        } else {
            *out++ = message[i];
        }
    }
    *out++ = '\n';
    writeAll(sFd.load(std::memory_order_relaxed), line, lineSize);
}

int redirectForTesting(int fd) {
    return sFd.exchange(fd);
}

}  // namespace systemlog
