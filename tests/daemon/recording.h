// Test helpers that capture what the daemon's logging front emits: the
// records a log server hands to its writers, and the lines of the system log.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/logging/log.h"
#include "platform/systemlog/system_log.h"

namespace kel::testing {

class RecordingWriter : public lum::LogWriter {
  public:
    void writeMessage(const lum::LogMessage& message) override {
        std::lock_guard lock(mutex_);
        messages_.push_back(message);
    }
    std::vector<lum::LogMessage> messages() {
        std::lock_guard lock(mutex_);
        return messages_;
    }
    std::vector<std::string> texts() {
        std::vector<std::string> result;
        for (const lum::LogMessage& message : messages()) {
            result.push_back(message.secondText);
        }
        return result;
    }

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
        dispatch_group_t group = server->flush();
        if (group != nullptr) {
            dispatch_group_wait(group, DISPATCH_TIME_FOREVER);
            dispatch_release(group);
        }
    }

    std::shared_ptr<RecordingWriter> writer = std::make_shared<RecordingWriter>();
    std::shared_ptr<lum::LogServer> server;
};

// Sends the system log into an anonymous file for the life of the scope.
class CapturedSystemLog {
  public:
    CapturedSystemLog() : fd_(memfd_create("systemlog", MFD_CLOEXEC)) {
        previous_ = systemlog::redirectForTesting(fd_);
    }
    ~CapturedSystemLog() {
        systemlog::redirectForTesting(previous_);
        close(fd_);
    }
    CapturedSystemLog(const CapturedSystemLog&) = delete;
    CapturedSystemLog& operator=(const CapturedSystemLog&) = delete;

    std::vector<std::string> lines() const {
        std::string text;
        char chunk[4096];
        ssize_t got;
        off_t offset = 0;
        while ((got = pread(fd_, chunk, sizeof chunk, offset)) > 0) {
            text.append(chunk, static_cast<size_t>(got));
            offset += got;
        }
        std::vector<std::string> result;
        size_t start = 0;
        size_t end;
        while ((end = text.find('\n', start)) != std::string::npos) {
            result.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        return result;
    }

  private:
    int fd_;
    int previous_;
};

}  // namespace kel::testing
