// Loggers: named children of the default logger, one shared level, lines to a sink.
#pragma once

#include <atomic>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/format.h"
#include "platform/base/object.h"

namespace Pelinor::Service {

enum class LogLevel : int { Error = 3, Warning = 4, Info = 5, Verbose = 6, Trivia = 7 };

std::string_view LevelName(LogLevel level);
// Accepts a level name or its number ("error" .. "trivia", "3" .. "7").
bool ParseLevel(std::string_view text, LogLevel& level);

class Logger : public ObjectImpl {
  public:
    // A logger without a level of its own follows its parent's.
    static Ref<Logger> CreateLogger(const Ref<Logger>& parent, const std::string& name);
    static Ref<Logger> sDefaultLogger;

    const std::string& GetName() const { return name; }
    LogLevel GetLevel() const;
    void SetLevel(LogLevel level) { ownLevel.store(static_cast<int>(level)); }
    bool IsEnabled(LogLevel level) const { return level <= GetLevel(); }
    std::string ToString() const override { return "Logger " + name; }

    Logger(std::string name, Ref<Logger> parent);

  private:
    const std::string name;
    const Ref<Logger> parent;
    std::atomic<int> ownLevel{0};
};

// Where formatted lines go. The default sink writes each line to standard error
// with one write(2), in the journal's form when started by systemd.
class LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void Write(LogLevel level, std::string_view logger, std::string_view message) = 0;
};
// Installs a sink (nullptr restores the default) and returns the previous one.
LogSink* SetLogSink(LogSink* sink);

void LogInternal(const Ref<Logger>& logger, LogLevel level, std::string_view format,
                 std::initializer_list<FormatArg> args);

// Formats nothing unless the logger's level lets the line through.
template <typename... Args>
requires(sizeof...(Args) <= 3) void Log(const Ref<Logger>& logger, LogLevel level,
                                        std::string_view format, const Args&... args) {
    if (logger->IsEnabled(level)) LogInternal(logger, level, format, {FormatArg(args)...});
}

}  // namespace Pelinor::Service
