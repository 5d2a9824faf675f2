// Captures the platform's log lines for the duration of a test.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/base/logging.h"

namespace TessardTest {

class LogCapture : public Pelinor::Service::LogSink {
  public:
    // Installs itself and lets every level through the default logger.
    LogCapture();
    ~LogCapture() override;

    void Write(Pelinor::Service::LogLevel level, std::string_view logger,
               std::string_view message) override;

    // Lines with exactly this message (and level).
    bool Has(const std::string& message) const;
    bool Has(Pelinor::Service::LogLevel level, const std::string& message) const;
    void Clear();

  private:
    mutable std::mutex mutex;
    std::vector<std::pair<Pelinor::Service::LogLevel, std::string>> lines;
    Pelinor::Service::LogSink* previous;
    Pelinor::Service::LogLevel previousLevel;
};

}  // namespace TessardTest
