// Captures the platform's log lines for the duration of a test.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/logging.h"

namespace TessardTest {

// Installs itself and lets every level through the default logger.
struct LogCapture : Pelinor::Service::LogSink {
    using LogLevel = Pelinor::Service::LogLevel;
    using Logger = Pelinor::Service::Logger;

    LogCapture() { Logger::sDefaultLogger->SetLevel(LogLevel::Trivia); }
    ~LogCapture() override {
        Pelinor::Service::SetLogSink(previous);
        Logger::sDefaultLogger->SetLevel(previousLevel);
    }

    void Write(LogLevel level, std::string_view, std::string_view message) override {
        std::lock_guard lock(mutex);
        lines.emplace_back(level, message);
        added.notify_all();
    }
    // Lines with exactly this message (and level).
    bool Has(const std::string& message) const {
        std::lock_guard lock(mutex);
        return std::ranges::any_of(lines, [&](auto& line) { return line.second == message; });
    }
    bool Has(LogLevel level, const std::string& message) const {
        return WaitFor(level, message, std::chrono::seconds(0));
    }
    // For lines a loop thread writes after the client already has its answer.
    bool WaitFor(LogLevel level, const std::string& message,
                 std::chrono::seconds timeout = std::chrono::seconds(5)) const {
        std::unique_lock lock(mutex);
        return added.wait_for(lock, timeout, [&] {
            return std::ranges::count(lines, std::pair(level, message)) > 0;
        });
    }

    mutable std::mutex mutex;
    mutable std::condition_variable added;
    std::vector<std::pair<LogLevel, std::string>> lines;
    Pelinor::Service::LogSink* previous = Pelinor::Service::SetLogSink(this);
    LogLevel previousLevel = Logger::sDefaultLogger->GetLevel();
};

}  // namespace TessardTest
