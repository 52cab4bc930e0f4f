// FlatFileLogWriter: a log writer that appends one text line per record to a
// file, and keeps the records that arrive while no file is open in memory
// until the next open.
//
// A line is "<seconds>:<level>:<firstText>:<secondText>\n": the time stamp in
// seconds with three decimals (as "%.3f" prints it), the level as the logging
// library renders it, and both texts byte for byte (colons and line feeds are
// not escaped). Each record is handed to the operating system before
// writeMessage returns, so a crash of the process loses no record that was
// written; there is no fsync.
//
// Every operation runs on the writer's own serial queue and returns once it
// has run. Own instances through make_shared_ptr:
//
//   auto writer = FlatFileLogWriter::make_shared_ptr(new FlatFileLogWriter(path));
//   writer->open("");
//   server->addWriter(writer);
//
// The file is opened the way a root process must open a file in a folder that
// others may write: the folder must be this user's or root's and not writable
// by others (unless sticky, as /tmp), and the file is opened without following
// a link or blocking, then must be a regular file of this user with no other
// name. It is locked (flock, exclusive) and truncated only once the lock is
// held, so that a second process with the same path never destroys the log of
// the one that keeps it: it gets no file instead.
//
// The writer reports nothing and throws nothing of its own; failures show as
// lost text, and openFailure() says why the last open left no file. A file that
// cannot be opened loses the text pending at that moment, and records keep
// collecting in memory. A failed write puts the writer into its failed state,
// and records aimed at the file are dropped until a later open succeeds (close
// first: a second open while a file is open fails).
//
// The pending text has no bound: every record that arrives while no file is
// open is kept, because dropping log records unseen costs more than the memory
// they take while a file is being set up.
#pragma once

#include <string>

#include "logging/shared_synchronizable.h"
#include "platform/logserver/log.h"
#include "platform/posix/unique_fd.h"

class FlatFileLogWriter : public lum::LogWriter,
                          public lum::SharedSynchronizable<FlatFileLogWriter> {
  public:
    // Remembers `path`; touches no file.
    explicit FlatFileLogWriter(const std::string& path);
    // Closes an open file; discards the pending text.
    ~FlatFileLogWriter() override;

    // Closes the open file; later records stay pending until the next open.
    // With no file open, or when the close fails, the writer is left failed.
    void close() override;

    // Writes one line: to the file when one is open, to the pending text
    // otherwise.
    void writeMessage(const lum::LogMessage& message) override;

    // Opens the file for writing, created (mode 0666 less the umask) or
    // truncated once locked, and moves the pending text into it. A non-empty
    // `newPath` replaces the path given so far. With a file already open, no
    // second file is opened and the writer is left failed; the pending text is
    // dropped either way when the open fails.
    void open(const std::string& newPath);

    struct OpenFailure {
        // The errno behind the failure; 0 when the checks refused the file or
        // its folder, or another process holds the file.
        int error = 0;
        // What went wrong, naming the path; empty when the last open succeeded.
        std::string why;
    };
    // Why the last open left no file open.
    [[nodiscard]] OpenFailure openFailure() const;

    // Whether the writer is in its failed state. For tests, which cannot see
    // a failure otherwise.
    bool fileStreamFailedForTesting() const;

  private:
    void writeLine(const lum::LogMessage& message);
    void append(const char* text, size_t size);

    std::string path_;
    std::string pendingText_;
    platform::UniqueFd file_;
    // As a stream's failed state: set by a failed open, write or close, and by
    // a close or second open out of turn; cleared by a successful open.
    bool failed_ = false;
    OpenFailure openFailure_;
};
