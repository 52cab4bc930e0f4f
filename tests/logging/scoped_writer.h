// A FlatFileLogWriter owned the way production code owns one, whose
// destruction the test waits for, so that no writer outlives its test.
#pragma once

#include <memory>
#include <string>

#include "logging/flat_file_log_writer.h"
#include "platform/dispatch/dispatch.h"

class ScopedWriter {
  public:
    explicit ScopedWriter(const std::string& path) {
        auto* writer = new QueueSharingWriter(path);
        queue_ = writer->retainQueue();
        writer_ = FlatFileLogWriter::make_shared_ptr(writer);
    }
    // Drops the only strong reference and waits, on the writer's own queue,
    // until the destruction queued there has run.
    ~ScopedWriter() {
        writer_.reset();
        dispatch_sync(queue_, [] {});
        dispatch_release(queue_);
    }
    ScopedWriter(const ScopedWriter&) = delete;
    ScopedWriter& operator=(const ScopedWriter&) = delete;

    FlatFileLogWriter* operator->() const { return writer_.get(); }
    const std::shared_ptr<FlatFileLogWriter>& get() const { return writer_; }

  private:
    class QueueSharingWriter : public FlatFileLogWriter {
      public:
        using FlatFileLogWriter::FlatFileLogWriter;
        dispatch_queue_t retainQueue() {
            dispatch_retain(queue_);
            return queue_;
        }
    };

    dispatch_queue_t queue_ = nullptr;
    std::shared_ptr<FlatFileLogWriter> writer_;
};
