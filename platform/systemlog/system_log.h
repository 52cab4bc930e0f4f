// The system log: one handle per subsystem and category, a per-level switch,
// and writes at the default and the error level.
//
// On Linux every message becomes one line on standard error. When standard
// error is the journal (systemd names its stream in JOURNAL_STREAM), each
// line starts with its sd-daemon priority ("<5>" default, "<3>" error), so
// that the journal files it at that priority; on a terminal or in a file the
// line is the plain text. Each message is written with a single write(2)
// (pieces of PIPE_BUF bytes for longer ones) and never sits in a stdio
// buffer, so a process that exits right after logging loses nothing. A line
// feed inside a message is written as "\n" (backslash, n), one at its very
// end is dropped: one message is always one line.
//
// Standard error never holds the process up for long nor ends it. When it is
// a pipe, a socket or a terminal, a line that it does not take within 100 ms
// is dropped, and so is every later one that it does not take at once, until
// it takes one again, which is then preceded by an error line with the number
// of lines lost; a reader that has gone makes the write fail with EPIPE: the
// writing thread blocks SIGPIPE around its write and consumes the one it
// raised, and no signal's disposition is touched. A file or another device
// (/dev/null) takes each line with plain writes.
#pragma once

#include <cstdarg>

namespace systemlog {

enum class Level {
    kDefault,
    kError,
};

struct HandleData;
using Handle = const HandleData*;

// The subsystem of every handle in this project. Each writer has a category
// of its own: the daemon its program name, the file-system library "global"
// (the process-wide context of logging/global_log.h), the others their
// library's name.
inline constexpr const char* kSubsystem = "org.kel.telephony";

// The handle for a subsystem and category. The same pair always yields the
// same handle; handles stay valid for the life of the process. Thread-safe.
Handle create(const char* subsystem, const char* category);

// The category the handle was created with.
const char* categoryOf(Handle handle);

// Whether messages of `level` are written. Both levels start enabled.
bool isEnabled(Handle handle, Level level);

// Turns a level on or off for every handle (tests switch the default level off
// to check that the log file still gets every record).
void setEnabled(Level level, bool enabled);

// Formats like printf and writes one line if the level is enabled. Thread-safe;
// lines of concurrent writers never interleave.
void write(Handle handle, Level level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void writeV(Handle handle, Level level, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// The file descriptor that lines go to (standard error unless changed), and
// whether it is the journal is asked anew. Returns the previous one. For
// tests.
int redirectForTesting(int fd);

}  // namespace systemlog
