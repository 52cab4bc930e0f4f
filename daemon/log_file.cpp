#include "daemon/log_file.h"

#include <errno.h>

#include <string>

#include "config/capabilities.h"
#include "config/kel_properties.h"
#include "daemon/log_emission.h"
#include "fs/paths.h"
#include "platform/posix/progname.h"
#include "platform/trace/trace.h"

namespace kel {

namespace {

constexpr mode_t kScratchFolderMode = 0755;

bool logFileEnabled() {
    // The record lives on after this reference goes: the process keeps its
    // shared instance until exit.
    const std::shared_ptr<Capabilities> capabilities = Capabilities::instance();
    return KELProperties::isEnabled(*capabilities);
}

}  // namespace

std::shared_ptr<FlatFileLogWriter> prepareLogFile(const char* scratchFolder) {
    const std::string logPath = std::string(scratchFolder) + getprogname() + ".log";
    if (!logFileEnabled()) {
        return nullptr;
    }
    // Not tested: a folder that cannot be made shows when the writer's open
    // fails, and the daemon runs on without a file either way.
    static_cast<void>(
        fsutil::makeDirectory(scratchFolder, kScratchFolderMode, /*recursive=*/false));
    return FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(logPath));
}

void attachLogFile(const std::shared_ptr<lum::LogServer>& logServer,
                   const std::shared_ptr<FlatFileLogWriter>& writer) {
    if (!writer) {
        return;
    }
    // Runs on the writer's queue and returns once the file is open. An empty
    // path keeps the one the writer was made with.
    writer->open("");
    const FlatFileLogWriter::OpenFailure failure = writer->openFailure();
    // A scratch folder that is not there means no log, as a log switched off
    // does; anything else in the way is said.
    if (!failure.why.empty() && failure.error != ENOENT) {
        logError("not keeping a log file: %s", failure.why.c_str());
    }
    logServer->addWriter(writer);
}

void closeLogFile(const std::shared_ptr<FlatFileLogWriter>& writer) {
    if (writer) {
        writer->close();
    }
}

}  // namespace kel
