#include "platform/watchdog/stack_report.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elfutils/libdwfl.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/posix/clock.h"
#include "platform/posix/file_util.h"
#include "platform/posix/futex.h"
#include "platform/posix/safe_open.h"
#include "platform/posix/signal_mask.h"
#include "platform/posix/unique_fd.h"
#include "platform/strings/format.h"
#include "platform/systemlog/system_log.h"
#include "platform/trace/trace.h"

namespace watchdog {

namespace {

using platform::kNsPerMs;

// How long a hung thread has to answer the stack-report signal.
constexpr int64_t kCaptureTimeoutNs = 500 * kNsPerMs;

// --- Capturing a thread's stack ---------------------------------------------

constexpr int kMaxFrames = 64;
constexpr pid_t kCapturing = -1;

// One capture at a time: only the monitor asks for stacks. `target` is the
// thread asked to fill in `frames`, kCapturing while it does, 0 otherwise. The
// handler itself sets it back to 0 when it has finished, so a capture that the
// monitor gave up on keeps the buffer to itself until it is over.
struct Capture {
    std::atomic<pid_t> target{0};
    std::atomic<uint32_t> done{0};
    void* frames[kMaxFrames];
    int depth = 0;
};
Capture sCapture;

void onStackReportSignal(int, siginfo_t*, void*) {
    const int savedErrno = errno;
    pid_t expected = static_cast<pid_t>(syscall(SYS_gettid));
    if (sCapture.target.compare_exchange_strong(expected, kCapturing)) {
        sCapture.depth = backtrace(sCapture.frames, kMaxFrames);
        sCapture.done.store(1, std::memory_order_release);
        sCapture.target.store(0);
        platform::futexWake(sCapture.done, INT_MAX);
    }
    errno = savedErrno;
}

// Asks `tid` for its stack and waits a bounded time; returns the number of
// frames in sCapture.frames, 0 when the thread did not answer in time (or an
// earlier capture that was given up on is still running).
int captureStack(pid_t tid) {
    if (sCapture.target.load() != 0) {
        return 0;
    }
    sCapture.done.store(0, std::memory_order_relaxed);
    sCapture.target.store(tid);
    if (tgkill(getpid(), tid, platform::stackReportSignal()) != 0) {
        sCapture.target.store(0);
        return 0;
    }
    // First the thread has to take the signal; once its handler runs, the
    // unwinding gets as long again before the report goes out without it.
    int64_t giveUpAt = platform::nowNs() + kCaptureTimeoutNs;
    bool started = false;
    while (sCapture.done.load(std::memory_order_acquire) == 0) {
        const int64_t remaining = giveUpAt - platform::nowNs();
        if (remaining <= 0) {
            pid_t expected = tid;
            if (started || sCapture.target.compare_exchange_strong(expected, 0)) {
                return 0;
            }
            started = true;
            giveUpAt = platform::nowNs() + kCaptureTimeoutNs;
            continue;
        }
        platform::futexWait(sCapture.done, 0, static_cast<uint64_t>(giveUpAt));
    }
    return sCapture.depth;
}

void installCaptureHandler() {
    struct sigaction action {};
    action.sa_sigaction = onStackReportSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(platform::stackReportSignal(), &action, nullptr);
}

// --- Writing a report ---------------------------------------------------------

std::string readProcFile(pid_t tid, const char* leaf) {
    const std::string path =
        platform::stringPrintf("/proc/self/task/%d/%s", static_cast<int>(tid), leaf);
    const platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return "?";
    }
    char buffer[1024];
    const ssize_t length = read(fd.get(), buffer, sizeof buffer);
    if (length <= 0) {
        return "?";
    }
    std::string text(buffer, static_cast<size_t>(length));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) {
        text.pop_back();
    }
    return text;
}

// The one-letter scheduler state from /proc/.../stat; the thread name before
// it is in parentheses and may itself contain ')' or spaces.
std::string schedulerState(pid_t tid) {
    const std::string stat = readProcFile(tid, "stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() ? stat.substr(close + 2, 1) : "?";
}

// libseccomp's table of system call names, loaded with the first report
// that needs it, as libdw is (see DwarfLibrary): a daemon that never hangs
// never maps it. Null when libseccomp is not installed.
decltype(&seccomp_syscall_resolve_num_arch) systemCallNamer() {
    static const auto sResolve = [] {
        // Never unloaded: the monitor may write another report later.
        void* handle = dlopen("libseccomp.so.2", RTLD_NOW | RTLD_LOCAL);
        return reinterpret_cast<decltype(&seccomp_syscall_resolve_num_arch)>(
            handle != nullptr ? dlsym(handle, "seccomp_syscall_resolve_num_arch") : nullptr);
    }();
    return sResolve;
}

// What /proc/.../syscall says, with the number of the call the thread is
// blocked in ("257 0x3 ...") replaced by its name ("openat 0x3 ...") where
// libseccomp knows it. "running", and -1 for a thread outside any call, stay.
std::string nameSystemCall(const std::string& text) {
    char* rest = nullptr;
    const long number = strtol(text.c_str(), &rest, 10);
    const auto resolve = systemCallNamer();
    if (rest == text.c_str() || number < 0 || number > INT_MAX || resolve == nullptr) {
        return text;
    }
    char* name = resolve(SCMP_ARCH_NATIVE, static_cast<int>(number));
    if (name == nullptr) {
        return text;
    }
    std::string named = name + std::string(rest);
    free(name);
    return named;
}

// The part of elfutils' libdw that the reports use, loaded with the first
// report: a daemon that never hangs never maps libdw and the compression
// libraries it pulls in, which keeps its start, its memory and its exit what
// they are without them. Null when libdw is not installed; frames then name
// their functions from the dynamic symbols only, without source lines.
struct DwarfLibrary {
    decltype(&dwfl_begin) begin;
    decltype(&dwfl_linux_proc_report) reportProcess;
    decltype(&dwfl_report_end) reportEnd;
    decltype(&dwfl_end) end;
    decltype(&dwfl_addrmodule) moduleAt;
    decltype(&dwfl_module_addrinfo) symbolAt;
    decltype(&dwfl_module_getsrc) sourceAt;
    decltype(&dwfl_lineinfo) lineInfo;
    Dwfl_Callbacks callbacks;

    static const DwarfLibrary* get() {
        static const DwarfLibrary* const sLibrary = load();
        return sLibrary;
    }

  private:
    static const DwarfLibrary* load() {
        // Never unloaded: the monitor may write another report later.
        void* handle = dlopen("libdw.so.1", RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            return nullptr;
        }
        auto* library = new DwarfLibrary{};
        const auto resolve = [handle](auto& function, const char* name) {
            function =
                reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(handle, name));
            return function != nullptr;
        };
        if (resolve(library->begin, "dwfl_begin") &&
            resolve(library->reportProcess, "dwfl_linux_proc_report") &&
            resolve(library->reportEnd, "dwfl_report_end") && resolve(library->end, "dwfl_end") &&
            resolve(library->moduleAt, "dwfl_addrmodule") &&
            resolve(library->symbolAt, "dwfl_module_addrinfo") &&
            resolve(library->sourceAt, "dwfl_module_getsrc") &&
            resolve(library->lineInfo, "dwfl_lineinfo") &&
            resolve(library->callbacks.find_elf, "dwfl_linux_proc_find_elf") &&
            resolve(library->callbacks.find_debuginfo, "dwfl_standard_find_debuginfo")) {
            return library;
        }
        delete library;
        return nullptr;
    }
};

// Functions, source files and lines of code addresses in this process, from
// the symbol tables and debug information of the executable and its
// libraries. Made for one report, on the monitor thread: reading them
// allocates and opens files.
class Symbolizer {
  public:
    Symbolizer() : dw_(DwarfLibrary::get()) {
        dwfl_ = dw_ != nullptr ? dw_->begin(&dw_->callbacks) : nullptr;
        if (dwfl_ != nullptr && (dw_->reportProcess(dwfl_, getpid()) != 0 ||
                                 dw_->reportEnd(dwfl_, nullptr, nullptr) != 0)) {
            dw_->end(std::exchange(dwfl_, nullptr));
        }
    }
    ~Symbolizer() {
        if (dwfl_ != nullptr) {
            dw_->end(dwfl_);
        }
    }
    Symbolizer(const Symbolizer&) = delete;
    Symbolizer& operator=(const Symbolizer&) = delete;

    // "%p function+offset (object) at file:line", with what is known of it.
    std::string describe(void* address) const {
        const auto pc = reinterpret_cast<uintptr_t>(address);
        Dwfl_Module* module = dwfl_ != nullptr ? dw_->moduleAt(dwfl_, pc) : nullptr;
        Dl_info info{};
        if (dladdr(address, &info) == 0) {
            info = {};
        }
        GElf_Off offset = 0;
        const char* name = info.dli_sname;
        if (name != nullptr) {
            offset = pc - reinterpret_cast<uintptr_t>(info.dli_saddr);
        } else if (module != nullptr) {
            GElf_Sym symbol;
            name = dw_->symbolAt(module, pc, &offset, &symbol, nullptr, nullptr, nullptr);
        }
        const char* object = info.dli_fname != nullptr ? info.dli_fname : "??";
        std::string text;
        if (name == nullptr) {
            text = platform::stringPrintf(
                "%p (%s+%#zx)", address, object,
                static_cast<size_t>(pc - reinterpret_cast<uintptr_t>(info.dli_fbase)));
        } else {
            int status = 0;
            char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
            text = platform::stringPrintf("%p %s+%#zx (%s)", address,
                                          status == 0 && demangled != nullptr ? demangled : name,
                                          static_cast<size_t>(offset), object);
            free(demangled);
        }
        // A return address is just past its call: the call's line is the one
        // of the byte before it.
        Dwfl_Line* line = module != nullptr ? dw_->sourceAt(module, pc - 1) : nullptr;
        int lineNumber = 0;
        const char* file =
            line != nullptr ? dw_->lineInfo(line, nullptr, &lineNumber, nullptr, nullptr, nullptr)
                            : nullptr;
        if (file != nullptr) {
            text += platform::stringPrintf(" at %s:%d", file, lineNumber);
        }
        return text;
    }

  private:
    const DwarfLibrary* const dw_;
    Dwfl* dwfl_ = nullptr;
};

std::string wallClockNow() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm utc;
    gmtime_r(&ts.tv_sec, &utc);
    char text[64];
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + length, sizeof text - length, ".%03ldZ", ts.tv_nsec / kNsPerMs);
    return text;
}

// Writes `lines` to a new file in the snapshot folder; returns its path, or a
// note saying why there is none.
std::string writeSnapshotFile(pid_t tid, const std::vector<std::string>& lines) {
    static unsigned sSequence = 0;
    // Only the folder's last component is made; a folder that another user
    // could change, and anything already at the report's name, are never
    // written into.
    const std::string folderPath = kel::trace::kSnapshotFolder;
    const platform::CheckedFd folder = platform::openTrustedFolder(folderPath, {.make = true});
    if (!folder.fd.valid()) {
        return "(not written: " + folder.why + ")";
    }
    const std::string name = platform::stringPrintf(
        "stackshot-%d-%d-%u.txt", static_cast<int>(getpid()), static_cast<int>(tid), ++sSequence);
    const std::string path = folderPath + name;
    const platform::UniqueFd fd(openat(folder.fd.get(), name.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd.valid()) {
        return "(not written: " + std::string(strerror(errno)) + ")";
    }
    std::string text;
    for (const std::string& line : lines) {
        text += line;
        text += '\n';
    }
    if (!platform::writeAll(fd.get(), text.data(), text.size())) {
        return path + " (incomplete: " + strerror(errno) + ")";
    }
    return path;
}

}  // namespace

void writeStackReport(pid_t tid, const char* reason, int32_t timeoutMs, int64_t armedAgoMs) {
    // What the thread is blocked in, read while it still is: the capture
    // signal wakes it.
    const std::string blockedIn = "state: " + schedulerState(tid) +
                                  ", wchan: " + readProcFile(tid, "wchan") +
                                  ", syscall: " + nameSystemCall(readProcFile(tid, "syscall"));
    const int depth = captureStack(tid);

    std::vector<std::string> lines;
    lines.push_back(std::string("stack report: ") + reason);
    lines.push_back("time: " + wallClockNow());
    lines.push_back("process: " + std::to_string(getpid()));
    lines.push_back("thread: " + std::to_string(tid) + " \"" + readProcFile(tid, "comm") + "\"");
    lines.push_back("timeout: " + std::to_string(timeoutMs) + " ms, armed " +
                    std::to_string(armedAgoMs) + " ms ago");
    lines.push_back(blockedIn);
    if (depth == 0) {
        lines.push_back("backtrace: unavailable (the thread did not answer)");
    } else {
        lines.push_back("backtrace:");
        const Symbolizer symbolizer;
        // Frame 0 is the signal handler itself.
        for (int i = 1; i < depth; ++i) {
            lines.push_back("  #" + std::to_string(i - 1) + " " +
                            symbolizer.describe(sCapture.frames[i]));
        }
    }
    const std::string file = writeSnapshotFile(tid, lines);

    static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "watchdog");
    for (const std::string& line : lines) {
        systemlog::write(sLog, systemlog::Level::kError, "%s", line.c_str());
    }
    systemlog::write(sLog, systemlog::Level::kError, "stack report file: %s", file.c_str());
}

void prepareStackReports() {
    // backtrace() loads the unwinder on its first call, which is not safe in
    // a signal handler: load it here, before any signal is sent.
    void* warmUp[1];
    backtrace(warmUp, 1);
    installCaptureHandler();
}

void resetStackReportsAfterFork() {
    sCapture.target.store(0);
}

}  // namespace watchdog
