// The process of the flat-file writer tests that need one: a fresh one (a fork
// would leave the dispatch threads behind), free to enter namespaces and to die.
//   crash <file> <count>  writes <count> records, then SIGKILLs itself
//   mounts <dir> <file>   fills a 64 KiB tmpfs on <dir>, remounts it read-only
//                         and opens there, then opens <file>
// Exits 0 when every expectation held, 1 (saying why on stderr) when one did
// not, kChildRefused when the machine refuses namespaces.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "logging/flat_file_log_writer.h"
#include "tests/logging/flat_file_child.h"

namespace {

lum::LogMessage record(int64_t ms, std::string text) {
    return {0, ms * 1000000, lum::LogLevel::kNotice, "child", std::move(text)};
}

int fail(const char* what) {
    std::fprintf(stderr, "flat_file_child: %s\n", what);
    return EXIT_FAILURE;
}

int refused(const char* what) {
    std::perror(what);
    return kChildRefused;
}

bool writeText(const char* path, const std::string& text) {
    return (std::ofstream(path) << text).flush().good();
}

int crash(const char* path, int count) {
    auto writer = FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(path));
    writer->open("");
    for (int index = 0; index < count; ++index) {
        writer->writeMessage(record(index, std::to_string(index)));
    }
    kill(getpid(), SIGKILL);
    return fail("survived SIGKILL");
}

int mounts(const char* dir, const char* writablePath) {
    // Root of a user namespace of its own, with a private mount namespace. The
    // maps name our ids from outside, so they are read before the unshare.
    const std::string uidMap = "0 " + std::to_string(getuid()) + " 1";
    const std::string gidMap = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !writeText("/proc/self/setgroups", "deny") ||
        !writeText("/proc/self/uid_map", uidMap) || !writeText("/proc/self/gid_map", gidMap) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("kel-test", dir, "tmpfs", 0, "size=64k") != 0) {
        return refused("namespace set-up");
    }
    auto writer =
        FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(dir + std::string("/log")));
    writer->open("");
    int index = 0;
    for (; index < 100 && !writer->fileStreamFailedForTesting(); ++index) {
        writer->writeMessage(record(index, std::string(1000, 'x')));
    }
    if (index < 2 || !writer->fileStreamFailedForTesting()) {
        return fail("the 64 KiB tmpfs took no record or all 100 KB");
    }
    writer->close();

    if (mount(nullptr, dir, nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        return refused("remount read-only");
    }
    writer->writeMessage(record(1, "lost"));
    writer->open("");
    if (!writer->fileStreamFailedForTesting()) {
        return fail("open on a read-only file system succeeded");
    }
    writer->writeMessage(record(2, "kept"));
    writer->open(writablePath);
    writer->close();
    return writer->fileStreamFailedForTesting() ? fail("open or close of the writable file failed")
                                                : 0;
}

}  // namespace

// Leaves without running exit handlers: the writer's destruction may still be
// on its way through the writer's queue, and nothing of it needs waiting for.
int main(int argc, char** argv) {
    const std::string mode = argc == 4 ? argv[1] : "";
    std::_Exit(mode == "crash"    ? crash(argv[2], std::atoi(argv[3]))
               : mode == "mounts" ? mounts(argv[2], argv[3])
                                  : fail("usage: crash|mounts <args>"));
}
