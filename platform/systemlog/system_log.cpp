#include "platform/systemlog/system_log.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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
// What sFd is (a sum of the Stream bits), asked at its first line; -1 until
// then.
std::atomic<int> sStream{-1};

enum Stream {
    // Lines carry their priority: the descriptor is the journal's stream.
    kPrefixed = 1,
    // A write may block or raise SIGPIPE (a pipe, a socket, a terminal), so it
    // is bounded in time and SIGPIPE is kept from ending the process. Files
    // and other devices take a line at once.
    kGuarded = 2,
};

// Whether `fd` is the stream that systemd connects a service's standard error
// to: it names that stream's device and inode in JOURNAL_STREAM.
bool isJournalStream(int fd) {
    const char* stream = getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat status;
    return stream != nullptr && sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

int streamOf(int fd) {
    int stream = sStream.load(std::memory_order_relaxed);
    if (stream < 0) {
        struct stat status;
        const bool plain = fstat(fd, &status) == 0 && !isatty(fd) &&
                           (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode));
        stream = (isJournalStream(fd) ? kPrefixed : 0) | (plain ? 0 : kGuarded);
        sStream.store(stream, std::memory_order_relaxed);
    }
    return stream;
}

bool prefixed(int fd) {
    return (streamOf(fd) & kPrefixed) != 0;
}

using Clock = std::chrono::steady_clock;

// How long a line may wait for standard error to take it before it is
// dropped. Lines ahead of it wait no longer, and once one has been dropped the
// others do not wait at all, so no thread waits much longer than this.
constexpr auto kWriteBound = std::chrono::milliseconds(100);

// Serialises whole lines: a single write(2) is atomic for pipes only up to
// PIPE_BUF, and a short write must be finished before another line starts.
std::mutex sWriteMutex;
// Guarded by sWriteMutex: the lines dropped since the last one written, and
// whether a dropped line left its beginning behind (the next one then starts
// a new line).
uint64_t sDropped = 0;
bool sLineOpen = false;

// Blocks SIGPIPE in the calling thread for the life of the scope, so that
// writing to a reader that has gone fails with EPIPE instead of ending the
// process. A SIGPIPE raised meanwhile is consumed on the way out; one that was
// pending before is left alone, and no disposition changes.
class ScopedSigpipeBlock {
  public:
    ScopedSigpipeBlock() {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        wasPending_ = pending();
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &previous_);
    }
    ~ScopedSigpipeBlock() {
        if (!wasPending_ && pending()) {
            const timespec now{};
            sigtimedwait(&sigpipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    ScopedSigpipeBlock(const ScopedSigpipeBlock&) = delete;
    ScopedSigpipeBlock& operator=(const ScopedSigpipeBlock&) = delete;

  private:
    static bool pending() {
        sigset_t set;
        return sigpending(&set) == 0 && sigismember(&set, SIGPIPE) == 1;
    }
    sigset_t sigpipe_;
    sigset_t previous_;
    bool wasPending_;
};

// Writes `size` bytes to `fd` unless it stops taking them until `deadline`;
// returns how many it wrote. Pieces of at most PIPE_BUF bytes, each after the
// descriptor polled writable: a pipe takes such a piece whole without
// blocking, and a socket has room for it.
size_t writeBefore(int fd, const char* data, size_t size, Clock::time_point deadline) {
    size_t done = 0;
    while (done < size) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd pfd{fd, POLLOUT, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        const ssize_t written =
            ready <= 0 ? -1 : ::write(fd, data + done, std::min<size_t>(size - done, PIPE_BUF));
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (ready == 0 || (errno != EINTR && errno != EAGAIN)) {
            break;
        }
    }
    return done;
}

// Once standard error fails to take a line in time, later lines do not wait
// for it until one has got through again, and that one is preceded by the
// number of lines lost.
void writeLine(int fd, const std::string& line) {
    std::lock_guard lock(sWriteMutex);
    std::string text = sLineOpen ? "\n" : "";
    if (sDropped > 0) {
        text += platform::stringPrintf(
            "%s%llu lines dropped: standard error did not take them within %lld ms\n",
            prefixed(fd) ? "<3>" : "", static_cast<unsigned long long>(sDropped),
            static_cast<long long>(kWriteBound.count()));
    }
    text += line;
    size_t written = text.size();
    if ((streamOf(fd) & kGuarded) == 0) {
        written = platform::writeAll(fd, text.data(), text.size()) ? text.size() : 0;
    } else {
        const ScopedSigpipeBlock sigpipeBlock;
        written = writeBefore(fd, text.data(), text.size(),
                              Clock::now() + (sDropped > 0 ? Clock::duration{} : kWriteBound));
    }
    if (written == text.size()) {
        sDropped = 0;
        sLineOpen = false;
    } else {
        ++sDropped;
        sLineOpen = sLineOpen || written > 0;
    }
}

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

}  // namespace

Handle create(const char* subsystem, const char* category) {
    Registry& reg = registry();
    std::lock_guard lock(reg.mutex);
    return &*reg.handles.insert(HandleData{subsystem, category}).first;
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
    va_list args;
    va_start(args, format);
    writeV(handle, level, format, args);
    va_end(args);
}

void writeV(Handle handle, Level level, const char* format, va_list args) {
    if (!isEnabled(handle, level)) {
        return;
    }
    const std::string message = platform::stringPrintfV(format, args);

    // A message may end its own line; every other line feed is escaped.
    size_t length = message.size();
    if (length > 0 && message[length - 1] == '\n') {
        --length;
    }
    const int fd = sFd.load(std::memory_order_relaxed);
    std::string line = !prefixed(fd) ? "" : level == Level::kError ? "<3>" : "<5>";
    line.reserve(line.size() + length + 1);
    for (size_t i = 0; i < length; ++i) {
        if (message[i] == '\n') {
            line += "\\n";
        } else {
            line += message[i];
        }
    }
    line += '\n';
    writeLine(fd, line);
}

int redirectForTesting(int fd) {
    const int previous = sFd.exchange(fd);
    sStream.store(-1, std::memory_order_relaxed);
    return previous;
}

}  // namespace systemlog
