// A FlatFileLogWriter owned the way production code owns one, whose
// destruction (file closed included) is waited for when the scope ends.
#pragma once

#include <memory>
#include <string>

#include "logging/flat_file_log_writer.h"
#include "platform/dispatch/dispatch.h"

class ScopedWriter {
  public:
    explicit ScopedWriter(const std::string& path)
        : writer_(FlatFileLogWriter::make_shared_ptr(new QueueSharingWriter(path))),
          queue_(dispatch::Owned<dispatch_queue_t>::retain(
              static_cast<QueueSharingWriter*>(writer_.get())->queue_)) {}
    // Drops the only strong reference, then waits on the writer's queue for
    // the destruction queued there.
    ~ScopedWriter() {
        writer_.reset();
        dispatch_sync(queue_.get(), [] {});
    }

    FlatFileLogWriter* operator->() const { return writer_.get(); }

  private:
    struct QueueSharingWriter : FlatFileLogWriter {
        using FlatFileLogWriter::FlatFileLogWriter;
        using FlatFileLogWriter::queue_;
    };

    std::shared_ptr<FlatFileLogWriter> writer_;
    dispatch::Owned<dispatch_queue_t> queue_;
};
