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

namespace {

template <typename Result, typename Call>
Result interposed(const char* function, Result failure, Call call) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    if (recorder != nullptr && recorder->onCall(function)) {
        return failure;
    }
    return call();
}

}  // namespace

// KEL_INTERPOSE(result type, name, (parameters), (arguments), failure value
//               [, noexcept])
#define KEL_INTERPOSE(Result, Name, Parameters, Arguments, Failure, ...)                      \
    extern "C" Result Name Parameters __VA_ARGS__ {                                           \
        static const auto sNext = reinterpret_cast<decltype(&Name)>(dlsym(RTLD_NEXT, #Name)); \
        return interposed<Result>(#Name, Failure, [&] { return sNext Arguments; });           \
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

// The mode argument is there only when the flags create a file.
extern "C" int openat(int dir, const char* path, int flags, ...) {
    static const auto sNext = reinterpret_cast<decltype(&openat)>(dlsym(RTLD_NEXT, "openat"));
    va_list args;
    va_start(args, flags);
    const mode_t mode = __OPEN_NEEDS_MODE(flags) ? va_arg(args, mode_t) : 0;
    va_end(args);
    return interposed<int>("openat", -1, [&] { return sNext(dir, path, flags, mode); });
}

KEL_INTERPOSE(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size), -1)
KEL_INTERPOSE(ssize_t, copy_file_range,
              (int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size,
               unsigned flags),
              (from, fromOffset, to, toOffset, size, flags), -1)

// close and closedir release the descriptor even when they report a failure, as
// on Linux: an injected failure is reported after the real call.
#define KEL_INTERPOSE_RELEASING(Result, Name, Parameters, Arguments, Failure)                 \
    extern "C" Result Name Parameters {                                                       \
        static const auto sNext = reinterpret_cast<decltype(&Name)>(dlsym(RTLD_NEXT, #Name)); \
        const Result result = sNext Arguments;                                                \
        return interposed<Result>(#Name, Failure, [&] { return result; });                    \
    }

KEL_INTERPOSE_RELEASING(int, close, (int fd), (fd), -1)
KEL_INTERPOSE_RELEASING(int, closedir, (DIR * directory), (directory), -1)

// open and fcntl take an optional third argument. It is read whether or not it
// was passed, as the C library's fcntl does, and handed on unchanged.
#define KEL_INTERPOSE_THIRD(Name, First, Third)                                               \
    extern "C" int Name(First first, int second, ...) {                                       \
        static const auto sNext = reinterpret_cast<decltype(&Name)>(dlsym(RTLD_NEXT, #Name)); \
        va_list rest;                                                                         \
        va_start(rest, second);                                                               \
        const Third third = va_arg(rest, Third);                                              \
        va_end(rest);                                                                         \
        return interposed<int>(#Name, -1, [&] { return sNext(first, second, third); });       \
    }

KEL_INTERPOSE_THIRD(open, const char*, mode_t)
KEL_INTERPOSE_THIRD(fcntl, int, void*)

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    *handle = recorder != nullptr ? recorder->onArm() : 0;
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    if (kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active()) {
        recorder->onDisarm(*handle);
    }
    return 0;
}
