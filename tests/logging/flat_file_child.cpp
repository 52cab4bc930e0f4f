// The child side of the flat-file writer tests that need a process of their
// own: a fresh process (no dispatch threads inherited across fork) that may
// enter a user and mount namespace of its own.
//
//   flat_file_child crash <file> <out> <in> writes records for ever, reporting
//                                           each index on <out> once written and
//                                           waiting for a byte on <in> to go on
//   flat_file_child full <dir>              fills a 64 KiB tmpfs mounted on <dir>
//   flat_file_child read-only <dir> <file>  opens on a read-only tmpfs on <dir>,
//                                           then on <file>
//
// Exit status: 0 when every expectation held, kChildFailed (with a message on
// stderr) when one did not, kChildRefused when the machine refuses namespaces.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "logging/flat_file_log_writer.h"
#include "tests/logging/flat_file_child.h"

namespace {

lum::LogMessage record(int64_t index, std::string text) {
    lum::LogMessage message;
    message.timestampNs = index * 1000000;
    message.level = lum::LogLevel::kNotice;
    message.firstText = "child";
    message.secondText = std::move(text);
    return message;
}

int fail(const char* what) {
    std::fprintf(stderr, "flat_file_child: %s\n", what);
    return kChildFailed;
}

bool writeText(const char* path, const std::string& text) {
    int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = ::write(fd, text.data(), text.size()) == ssize_t(text.size());
    ::close(fd);
    return written;
}

// Becomes root of a user namespace of its own, with a private mount namespace,
// and mounts a tmpfs of `options` on `dir`.
bool mountScratchTmpfs(const char* dir, const char* options) {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        std::fprintf(stderr, "flat_file_child: unshare: %s\n", std::strerror(errno));
        return false;
    }
    if (!writeText("/proc/self/setgroups", "deny") ||
        !writeText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1") ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("kel-test", dir, "tmpfs", 0, options) != 0) {
        std::fprintf(stderr, "flat_file_child: namespace set-up: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

off_t fileSize(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

int crash(const char* path, int reportFd, int goOnFd) {
    auto writer = FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(path));
    writer->open("");
    for (uint32_t index = 0;; ++index) {
        writer->writeMessage(record(index, "record " + std::to_string(index)));
        char goOn = 0;
        if (::write(reportFd, &index, sizeof index) != sizeof index ||
            ::read(goOnFd, &goOn, 1) != 1) {
            return fail("the test went away");
        }
    }
}

int fillTmpfs(const char* dir) {
    if (!mountScratchTmpfs(dir, "size=64k")) {
        return kChildRefused;
    }
    const std::string path = std::string(dir) + "/log";
    auto writer = FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(path));
    writer->open("");
    if (writer->fileStreamFailed()) {
        return fail("open on the fresh tmpfs failed");
    }
    const std::string text(1000, 'x');
    for (int index = 0; index < 100 && !writer->fileStreamFailed(); ++index) {
        writer->writeMessage(record(index, text));
    }
    if (!writer->fileStreamFailed()) {
        return fail("100 KB fitted into a 64 KiB tmpfs");
    }
    const off_t sizeAtFailure = fileSize(path);
    writer->writeMessage(record(0, "dropped"));
    if (fileSize(path) != sizeAtFailure) {
        return fail("a record reached the file after the failure");
    }
    writer->close();
    return writer->fileStreamFailed() ? 0 : fail("close cleared the failure");
}

int openReadOnly(const char* dir, const char* writablePath) {
    if (!mountScratchTmpfs(dir, "size=64k")) {
        return kChildRefused;
    }
    if (mount(nullptr, dir, nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        std::fprintf(stderr, "flat_file_child: remount read-only: %s\n", std::strerror(errno));
        return kChildRefused;
    }
    auto writer = FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(writablePath));
    writer->writeMessage(record(1, "lost"));
    writer->open(std::string(dir) + "/log");
    if (!writer->fileStreamFailed()) {
        return fail("open on a read-only file system succeeded");
    }
    writer->writeMessage(record(2, "kept"));
    writer->open(writablePath);
    if (writer->fileStreamFailed()) {
        return fail("open of the writable file failed");
    }
    writer->close();
    return writer->fileStreamFailed() ? fail("close failed") : 0;
}

int run(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "crash" && argc == 5) {
        return crash(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    if (mode == "full" && argc == 3) {
        return fillTmpfs(argv[2]);
    }
    if (mode == "read-only" && argc == 4) {
        return openReadOnly(argv[2], argv[3]);
    }
    return fail("usage: flat_file_child crash|full|read-only ...");
}

}  // namespace

// Leaves without running exit handlers: the writer's destruction may still be
// on its way through the writer's queue, and nothing of it needs waiting for.
int main(int argc, char** argv) {
    const int status = run(argc, argv);
    std::fflush(stderr);
    std::_Exit(status);
}
