// Test helpers that capture what the daemon's logging front emits: the
// records a log server hands to its writers, and the lines of the system log.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/logserver/log.h"
#include "platform/systemlog/system_log.h"
#include "tests/support/temp_dir.h"

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

// Sends the system log into a scratch file for the life of the scope.
class CapturedSystemLog {
  public:
    CapturedSystemLog() = default;
    ~CapturedSystemLog() {
        systemlog::redirectForTesting(previous_);
        close(fd_);
    }
    CapturedSystemLog(const CapturedSystemLog&) = delete;
    CapturedSystemLog& operator=(const CapturedSystemLog&) = delete;

    std::vector<std::string> lines() const {
        std::istringstream text(readFile(dir_.file("systemlog")));
        std::vector<std::string> result;
        for (std::string line; std::getline(text, line);) {
            result.push_back(line);
        }
        return result;
    }

  private:
    TempDir dir_;
    const int fd_ = open(dir_.file("systemlog").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int previous_ = systemlog::redirectForTesting(fd_);
};

}  // namespace kel::testing
