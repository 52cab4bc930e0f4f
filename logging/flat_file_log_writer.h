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
// The writer reports nothing and throws nothing of its own; failures show as
// lost text. A file that cannot be opened loses the text pending at that
// moment, and records keep collecting in memory. A failed write or flush puts
// the file stream into its failed state, and records aimed at the file are
// dropped until a later open succeeds (close first: a second open while a file
// is open fails).
//
// The pending text has no bound: every record that arrives while no file is
// open is kept, because dropping log records unseen costs more than the memory
// they take while a file is being set up.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include "logging/shared_synchronizable.h"
#include "platform/logserver/log.h"

class FlatFileLogWriter : public lum::LogWriter,
                          public lum::SharedSynchronizable<FlatFileLogWriter> {
  public:
    // Remembers `path`; touches no file.
    explicit FlatFileLogWriter(const std::string& path);
    // Flushes and closes an open file; discards the pending text.
    ~FlatFileLogWriter() override;

    // Flushes and closes the open file; later records stay pending until the
    // next open. With no file open, or when the flush or close fails, the file
    // stream is left failed.
    void close() override;

    // Writes one line: to the file when one is open, to the pending text
    // otherwise.
    void writeMessage(const lum::LogMessage& message) override;

    // Opens the file for writing, created or truncated (mode 0666 less the
    // umask), and moves the pending text into it. A non-empty `newPath`
    // replaces the path given so far. With a file already open, no second file
    // is opened and the file stream is left failed; the pending text is
    // dropped either way when the open fails. Does not flush.
    void open(const std::string& newPath);

    // Whether the file stream is in its failed state (failbit or badbit). For
    // tests, which cannot see a failure otherwise.
    bool fileStreamFailedForTesting() const;

  private:
    void writeLine(const lum::LogMessage& message);

    std::string path_;
    std::ostringstream pendingText_;
    std::ofstream fileStream_;
};
