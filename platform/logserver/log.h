// The logging library: a log server that hands records to its writers from a
// thread of its own, and the loggers that feed it.
//
// Records carry a wall-clock time stamp (nanoseconds since the Unix epoch), a
// level, the logger's name as first text and the message as second text. The
// server hands every record to every writer exactly once, in the order the
// records were accepted, always from the server's own thread (never from a
// writer's queue), so a writer may block that thread while it writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "platform/dispatch/dispatch.h"
#include "platform/systemlog/system_log.h"

namespace lum {

// Severity of a record. The numbering leaves room between the named levels;
// any 8-bit value is a valid level.
enum class LogLevel : uint8_t {
    kDebug = 20,
    kInfo = 40,
    kNotice = 50,
    kWarning = 60,
    kError = 80,
    kFault = 100,
};

// The library's rendering of a level: the name of a named level ("Info"), the
// decimal value of any other. Never allocates.
std::string_view levelName(LogLevel level, char (&scratch)[4]);
std::ostream& operator<<(std::ostream& stream, LogLevel level);

struct LogMessage {
    uint64_t sequence = 0;  // order of acceptance by the server
    int64_t timestampNs = 0;
    LogLevel level = LogLevel::kInfo;
    std::string firstText;   // the logger's name
    std::string secondText;  // the message
};

// A destination of records. The server calls write() once per record from its
// own thread; the default forwards to writeMessage().
class LogWriter {
  public:
    virtual ~LogWriter();
    virtual void close();
    virtual void writeMessage(const LogMessage& message) = 0;
    virtual void write(std::shared_ptr<LogMessage> message);
    // Called by the server's flush after every earlier record has been handed
    // over; the flush completes when every writer has dropped its session.
    virtual void flush(dispatch::group_session session);
    // One line that names the writer's kind.
    virtual std::string getSimpleConfig();
    // The writer's settings as JSON text.
    virtual std::string getFullConfig();
};

class LogServer {
  public:
    // A server named `name`, not yet started; null when it cannot be made.
    [[nodiscard]] static std::shared_ptr<LogServer> create(const std::string& name);

    ~LogServer();
    LogServer(const LogServer&) = delete;
    LogServer& operator=(const LogServer&) = delete;

    const std::string& name() const;

    // Adds a writer; records accepted from now on reach it. Thread-safe.
    void addWriter(std::shared_ptr<LogWriter> writer);

    // Starts the delivery thread. Records accepted before start are kept and
    // delivered once it runs. Calling twice is harmless.
    void start();

    // Accepts a record for delivery; stamps it with the current wall-clock time
    // and the next sequence number. Never blocks on a writer. Records sent
    // after close() are dropped.
    void submit(LogLevel level, std::string firstText, std::string secondText);

    // A group that completes once every record accepted before this call has
    // reached every writer and every writer's flush session has ended. The
    // caller owns one reference to the group (dispatch_release). Null when the
    // server is closed.
    [[nodiscard]] dispatch_group_t flush() const;

    // Delivers what was accepted, stops the delivery thread, closes and drops
    // the writers. Later records are dropped. Idempotent. It waits for the
    // delivery thread, so neither it nor the destructor (which calls it) may
    // run on that thread: a writer must not own its server.
    void close();

  private:
    struct State;
    explicit LogServer(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

// The level filter of the loggers: shouldLog(level) answers level >= the
// minimum. Starts at kDebug. Process-wide; for configuration and tests.
void setMinimumLevel(LogLevel level);
LogLevel minimumLevel();

// A formatted message, moved into forceLog.
class LogMessageBuffer {
  public:
    static LogMessageBuffer createWithFormat(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    LogMessageBuffer(LogMessageBuffer&&) noexcept = default;
    LogMessageBuffer& operator=(LogMessageBuffer&&) noexcept = default;

    std::string release() { return std::move(text_); }

  private:
    explicit LogMessageBuffer(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

// A system-log context: the handle of one subsystem and category.
class OsLogContext {
  public:
    OsLogContext() = default;
    OsLogContext(const char* subsystem, const char* category);
    OsLogContext(const OsLogContext&) = default;
    OsLogContext& operator=(const OsLogContext&) = default;
    OsLogContext(OsLogContext&&) noexcept = default;
    OsLogContext& operator=(OsLogContext&&) noexcept = default;
    ~OsLogContext() = default;

    // Null for a default-constructed context.
    systemlog::Handle handle() const { return handle_; }

  private:
    systemlog::Handle handle_ = nullptr;
};

// What every logger has: a name and its system-log handle.
class LoggerCommonBase {
  public:
    LoggerCommonBase() = default;
    LoggerCommonBase(std::string name, systemlog::Handle handle);
    LoggerCommonBase(const LoggerCommonBase&) = default;
    LoggerCommonBase& operator=(const LoggerCommonBase&) = default;
    virtual ~LoggerCommonBase();

    virtual bool shouldLog(LogLevel level) const;

    const std::string& name() const { return name_; }
    systemlog::Handle handle() const { return handle_; }

  private:
    std::string name_;
    systemlog::Handle handle_ = nullptr;
};

// A logger bound to a sink (a shared log server): forceLog hands a record to
// the sink without testing the level again. An empty sink drops records.
template <typename Sink>
class LoggerBase : public LoggerCommonBase {
  public:
    LoggerBase() = default;
    LoggerBase(std::string name, systemlog::Handle handle, Sink sink)
        : LoggerCommonBase(std::move(name), handle), sink_(std::move(sink)) {}

    void forceLog(LogLevel level, LogMessageBuffer&& buffer) const {
        if (sink_) {
            sink_->submit(level, name(), buffer.release());
        }
    }

    const Sink& sink() const { return sink_; }
    void setSink(Sink sink) { sink_ = std::move(sink); }

  private:
    Sink sink_{};
};

// A logger bound to a log server. Made from a name (its system-log handle is
// that of systemlog::kSubsystem and the name as category, and records carry the
// name) or from a context (records carry the context's category).
class StaticLogger : public LoggerBase<std::shared_ptr<LogServer>> {
  public:
    StaticLogger() = default;
    StaticLogger(const std::string& name, const std::shared_ptr<LogServer>& server);
    StaticLogger(OsLogContext context, const std::shared_ptr<LogServer>& server);
};

}  // namespace lum
