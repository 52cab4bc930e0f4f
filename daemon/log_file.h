// The daemon's own flat-file log: three hooks that main runs at fixed points
// of its life.
//
// Whether there is a file at all is the "kel.enabled" preference's call,
// asked once at start-up. With it off the hooks make no folder, touch no file
// and hand out no writer; main runs the same either way. The file's path is
// the trace scratch folder, the program name and ".log", joined exactly as
// they stand: a folder without a trailing '/' gets the name glued to its last
// component.
#pragma once

#include <memory>

#include "logging/flat_file_log_writer.h"
#include "platform/logserver/log.h"
#include "platform/trace/trace.h"

namespace kel {

// Builds the log path from `scratchFolder`, asks the enabling preference
// (which brings the shared Capabilities record into being either way) and,
// when the log is on, makes the scratch folder's last component (never its
// parents) and a writer for the path. The file itself is not touched yet.
// Empty when the log is off.
[[nodiscard]] std::shared_ptr<FlatFileLogWriter> prepareLogFile(
    const char* scratchFolder = trace::kScratchFolder);

// Opens the writer's file, created or truncated, and adds the writer to
// `logServer` (not empty). Does nothing without a writer. A file that cannot
// be opened, or that is refused (see FlatFileLogWriter), is said once at the
// error level of the system log, unless its folder is simply missing; its
// records stay in the writer's memory and the daemon runs on.
void attachLogFile(const std::shared_ptr<lum::LogServer>& logServer,
                   const std::shared_ptr<FlatFileLogWriter>& writer);

// Closes the writer's file. Call once the log server has flushed and closed,
// so that the file holds every record of the run. Does nothing without a
// writer.
void closeLogFile(const std::shared_ptr<FlatFileLogWriter>& writer);

}  // namespace kel
