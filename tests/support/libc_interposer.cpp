// Definitions of libc functions that take precedence over the C library's in a
// test executable: each asks the thread's CallRecorder whether to fail, then
// hands the call to the next definition in the lookup order (the C library's,
// or a sanitizer's). Each declaration must match the C library's, exception
// specification included.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

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
KEL_INTERPOSE(int, closedir, (DIR * directory), (directory), -1)
