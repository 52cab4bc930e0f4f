// Test helpers that capture what the daemon's logging front emits: the
// records a log server hands to its writers, and the lines of the system log.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/logserver/log.h"
#include "platform/posix/unique_fd.h"
#include "platform/systemlog/system_log.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {

// Keeps every record it gets, counts those delivered on a thread that blocks
// SIGTERM (as the platform's threads do, and a test's own threads do not), and
// counts closes.
class RecordingWriter : public lum::LogWriter {
  public:
    void writeMessage(const lum::LogMessage& message) override {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigtermBlockedDeliveries += sigismember(&mask, SIGTERM);
        std::lock_guard lock(mutex_);
        messages_.push_back(message);
    }
    void close() override { ++closes; }
    std::vector<lum::LogMessage> messages() {
        std::lock_guard lock(mutex_);
        return messages_;
    }

    std::atomic<int> sigtermBlockedDeliveries{0};
    std::atomic<int> closes{0};

  private:
    std::mutex mutex_;
    std::vector<lum::LogMessage> messages_;
};

// A started log server with one recording writer.
struct RecordedLogServer {
    RecordedLogServer() : server(lum::LogServer::create("kel-test")) {
        server->addWriter(writer);
        server->start();
    }
    ~RecordedLogServer() { server->close(); }

    // Waits until every record submitted so far has reached the writer.
    void flush() const {
        const auto flushed = dispatch::Owned<dispatch_group_t>::adopt(server->flush());
        dispatch_group_wait(flushed.get(), DISPATCH_TIME_FOREVER);
    }

    std::shared_ptr<RecordingWriter> writer = std::make_shared<RecordingWriter>();
    std::shared_ptr<lum::LogServer> server;
};

// The value of JOURNAL_STREAM that names `fd` as the journal's stream.
inline std::string journalStreamOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// Sends the system log into a file in memory for the life of the scope, named
// as the journal's stream, so that its lines carry their priority, unless
// `asJournal` is false: then JOURNAL_STREAM names no stream, and lines are
// plain text, as in any file.
class CapturedSystemLog {
  public:
    explicit CapturedSystemLog(bool asJournal = true)
        : previousStream_(getenv("JOURNAL_STREAM") != nullptr ? getenv("JOURNAL_STREAM") : "") {
        setenv("JOURNAL_STREAM", asJournal ? journalStreamOf(fd_.get()).c_str() : "", 1);
        previous_ = systemlog::redirectForTesting(fd_.get());
    }
    ~CapturedSystemLog() {
        systemlog::redirectForTesting(previous_);
        if (previousStream_.empty()) {
            unsetenv("JOURNAL_STREAM");
        } else {
            setenv("JOURNAL_STREAM", previousStream_.c_str(), 1);
        }
    }
    CapturedSystemLog(const CapturedSystemLog&) = delete;
    CapturedSystemLog& operator=(const CapturedSystemLog&) = delete;

    std::string text() const { return readFile("/proc/self/fd/" + std::to_string(fd_.get())); }
    std::vector<std::string> lines() const { return linesOf(text()); }

  private:
    const platform::UniqueFd fd_{memfd_create("systemlog", MFD_CLOEXEC)};
    std::string previousStream_;
    int previous_ = -1;
};

}  // namespace kel::testing
