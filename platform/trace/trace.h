// The trace facilities that go with the helper server: where transient trace
// output and stack reports go, and whether tracing is allowed.
//
// The folders have build-time defaults; when the environment variable
// KEL_HELPER_RUNTIME_DIR is set as the process starts, both move under that
// folder ("scratch/" and "snapshots/"), so that instances side by side (tests)
// keep their traces apart.
#pragma once

namespace kel::trace {

// Folder for transient trace output, with a trailing '/'.
extern const char* const kScratchFolder;

// Folder for stack reports and other snapshots, with a trailing '/'.
extern const char* const kSnapshotFolder;

// Whether tracing is allowed on this machine.
bool isAllowed();

}  // namespace kel::trace
