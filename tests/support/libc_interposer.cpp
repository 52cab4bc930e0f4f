// Definitions of libc functions that take precedence over the C library's in a
// test executable: each asks the thread's CallRecorder whether to fail, then
// hands the call to the next definition in the lookup order (the C library's,
// or a sanitizer's). Each declaration must match the C library's,
// noexcept included. The watchdog service is replaced too: under a
// CallRecorder, its guards are counted there instead of arming anything.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/watchdog/watchdog.h"
#include "tests/support/call_recorder.h"

using kel::testing::CallRecorder;

namespace {

template <typename Result, typename Call>
Result interposed(const char* function, Result failure, Call call) {
    CallRecorder* const recorder = CallRecorder::sActive;
    return recorder != nullptr && recorder->onCall(function) ? failure : call();
}

}  // namespace

// The definition of `Name` that this one hides.
#define KEL_NEXT(Name) reinterpret_cast<decltype(&Name)>(dlsym(RTLD_NEXT, #Name))

// KEL_INTERPOSE(result type, name, (parameters), (arguments), failure value
//               [, noexcept])
#define KEL_INTERPOSE(Result, Name, Parameters, Arguments, Failure, ...)            \
    extern "C" Result Name Parameters __VA_ARGS__ {                                 \
        static const auto sNext = KEL_NEXT(Name);                                   \
        return interposed<Result>(#Name, Failure, [&] { return sNext Arguments; }); \
    }

KEL_INTERPOSE(int, stat, (const char* path, struct stat* status), (path, status), -1, noexcept)
KEL_INTERPOSE(int, mkdir, (const char* path, mode_t mode), (path, mode), -1, noexcept)
KEL_INTERPOSE(DIR*, opendir, (const char* path), (path), nullptr)
KEL_INTERPOSE(dirent*, readdir, (DIR * directory), (directory), nullptr)
KEL_INTERPOSE(DIR*, fdopendir, (int fd), (fd), nullptr)
KEL_INTERPOSE(int, unlinkat, (int dir, const char* path, int flags), (dir, path, flags), -1,
              noexcept)
KEL_INTERPOSE(int, remove, (const char* path), (path), -1, noexcept)
KEL_INTERPOSE(int, rename, (const char* from, const char* to), (from, to), -1, noexcept)
KEL_INTERPOSE(int, chown, (const char* path, uid_t uid, gid_t gid), (path, uid, gid), -1, noexcept)
KEL_INTERPOSE(int, fchownat, (int dir, const char* path, uid_t uid, gid_t gid, int flags),
              (dir, path, uid, gid, flags), -1, noexcept)
KEL_INTERPOSE(int, chmod, (const char* path, mode_t mode), (path, mode), -1, noexcept)
KEL_INTERPOSE(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size), -1)
KEL_INTERPOSE(ssize_t, copy_file_range,
              (int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size,
               unsigned flags),
              (from, fromOffset, to, toOffset, size, flags), -1)

// open, openat and fcntl take an optional last argument. It is read whether or
// not it was passed, as the C library's fcntl does, and handed on unchanged.
#define KEL_INTERPOSE_OPTIONAL(Name, Parameters, Last, Optional, Arguments) \
    extern "C" int Name Parameters {                                        \
        va_list rest;                                                       \
        va_start(rest, Last);                                               \
        const Optional optional = va_arg(rest, Optional);                   \
        va_end(rest);                                                       \
        static const auto sNext = KEL_NEXT(Name);                           \
        return interposed<int>(#Name, -1, [&] { return sNext Arguments; }); \
    }

KEL_INTERPOSE_OPTIONAL(open, (const char* path, int flags, ...), flags, mode_t,
                       (path, flags, optional))
KEL_INTERPOSE_OPTIONAL(openat, (int dir, const char* path, int flags, ...), flags, mode_t,
                       (dir, path, flags, optional))
KEL_INTERPOSE_OPTIONAL(fcntl, (int fd, int command, ...), command, void*, (fd, command, optional))

// close releases the descriptor even when it reports a failure, as on Linux:
// an injected failure is reported after the real call.
extern "C" int close(int fd) {
    static const auto sNext = KEL_NEXT(close);
    const int result = sNext(fd);
    return interposed<int>("close", -1, [&] { return result; });
}

// A guard armed under a recorder is counted there and gets a handle other than
// 0; any other gets 0, which the stop ignores.
extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    *handle = CallRecorder::sActive != nullptr ? ++CallRecorder::sActive->armedGuards : 0;
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    if (CallRecorder* const recorder = CallRecorder::sActive; recorder != nullptr) {
        recorder->armedGuards -= *handle != 0;
    }
    return 0;
}
