#include "platform/logserver/log.h"

#include <cstdarg>
#include <ostream>

#include "platform/strings/format.h"

namespace lum {

namespace {

std::atomic<LogLevel> sMinimumLevel{LogLevel::kDebug};

}  // namespace

std::string_view levelName(LogLevel level, char (&scratch)[4]) {
    switch (level) {
        case LogLevel::kDebug:
            return "Debug";
        case LogLevel::kInfo:
            return "Info";
        case LogLevel::kNotice:
            return "Notice";
        case LogLevel::kWarning:
            return "Warning";
        case LogLevel::kError:
            return "Error";
        case LogLevel::kFault:
            return "Fault";
    }
    // Up to three decimal digits, written from the right.
    unsigned value = static_cast<uint8_t>(level);
    char* end = scratch + sizeof scratch;
    char* begin = end;
    do {
        *--begin = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return std::string_view(begin, static_cast<size_t>(end - begin));
}

std::ostream& operator<<(std::ostream& stream, LogLevel level) {
    char scratch[4];
    return stream << levelName(level, scratch);
}

LogWriter::~LogWriter() = default;

void LogWriter::close() {}

void LogWriter::write(std::shared_ptr<LogMessage> message) {
    writeMessage(*message);
}

void LogWriter::flush(dispatch::group_session) {}

std::string LogWriter::getSimpleConfig() {
    return "LogWriter";
}

std::string LogWriter::getFullConfig() {
    return "{\"kind\":\"LogWriter\"}";
}

void setMinimumLevel(LogLevel level) {
    sMinimumLevel.store(level, std::memory_order_relaxed);
}

LogLevel minimumLevel() {
    return sMinimumLevel.load(std::memory_order_relaxed);
}

LogMessageBuffer LogMessageBuffer::createWithFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = platform::stringPrintfV(format, args);
    va_end(args);
    return LogMessageBuffer(std::move(text));
}

OsLogContext::OsLogContext(const char* subsystem, const char* category)
    : handle_(systemlog::create(subsystem, category)) {}

LoggerCommonBase::LoggerCommonBase(std::string name, systemlog::Handle handle)
    : name_(std::move(name)), handle_(handle) {}

LoggerCommonBase::~LoggerCommonBase() = default;

bool LoggerCommonBase::shouldLog(LogLevel level) const {
    return level >= minimumLevel();
}

StaticLogger::StaticLogger(const std::string& name, const std::shared_ptr<LogServer>& server)
    : LoggerBase(name, systemlog::create(systemlog::kSubsystem, name.c_str()), server) {}

StaticLogger::StaticLogger(OsLogContext context, const std::shared_ptr<LogServer>& server)
    : LoggerBase(context.handle() != nullptr ? systemlog::categoryOf(context.handle()) : "",
                 context.handle(), server) {}

}  // namespace lum
