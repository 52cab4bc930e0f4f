// A FlatFileLogWriter owned the way production code owns one. Its queue is
// idle once every call on it has returned, and a synchronised object on an
// idle queue is destroyed at once: when the scope ends, the writer is gone and
// its file closed.
#pragma once

#include <memory>
#include <string>

#include "logging/flat_file_log_writer.h"

class ScopedWriter {
  public:
    explicit ScopedWriter(const std::string& path)
        : writer_(FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(path))) {}

    FlatFileLogWriter* operator->() const { return writer_.get(); }

  private:
    std::shared_ptr<FlatFileLogWriter> writer_;
};
