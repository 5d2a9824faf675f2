// Captures the platform's log lines for the duration of a test.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/logging.h"

namespace TessardTest {

struct LogLine {
    Pelinor::Service::LogLevel level;
    std::string logger;
    std::string message;
};

class LogCapture : public Pelinor::Service::LogSink {
  public:
    // Installs itself and lets every level through the default logger.
    LogCapture();
    ~LogCapture() override;

    void Write(Pelinor::Service::LogLevel level, std::string_view logger,
               std::string_view message) override;

    // Whether a line with exactly this message (and level) was logged.
    bool Has(const std::string& message) const;
    bool Has(Pelinor::Service::LogLevel level, const std::string& message) const;
    int Count(const std::string& message) const;
    // Waits until a line with this message appears.
    bool WaitFor(const std::string& message, std::chrono::milliseconds timeout);
    void Clear();

  private:
    std::vector<LogLine> Lines() const;

    mutable std::mutex mutex;
    std::vector<LogLine> lines;
    Pelinor::Service::LogSink* previous;
    Pelinor::Service::LogLevel previousLevel;
};

}  // namespace TessardTest
