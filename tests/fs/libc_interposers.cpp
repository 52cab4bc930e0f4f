// Definitions of the libc calls that the path operations make. The executable's
// own definitions take precedence over libc's, so each call is recorded and
// then handed to the next definition in the lookup order (libc's, or a
// sanitizer's).
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include "tests/fs/recording_watchdog.h"

namespace {

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int stat(const char* path, struct stat* status) noexcept {
    static const auto sReal = next<int (*)(const char*, struct stat*)>("stat");
    recording::record("stat");
    return sReal(path, status);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept {
    static const auto sReal = next<int (*)(const char*, mode_t)>("mkdir");
    recording::record("mkdir");
    return sReal(path, mode);
}

extern "C" DIR* opendir(const char* path) {
    static const auto sReal = next<DIR* (*)(const char*)>("opendir");
    recording::record("opendir");
    return sReal(path);
}

extern "C" dirent* readdir(DIR* directory) {
    static const auto sReal = next<dirent* (*)(DIR*)>("readdir");
    recording::record("readdir");
    return sReal(directory);
}

extern "C" int closedir(DIR* directory) {
    static const auto sReal = next<int (*)(DIR*)>("closedir");
    recording::record("closedir");
    return sReal(directory);
}
