#include "tests/support/log_capture.h"

#include <algorithm>
#include <thread>

namespace TessardTest {

using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;

LogCapture::LogCapture()
    : previous(Pelinor::Service::SetLogSink(this)),
      previousLevel(Logger::sDefaultLogger->GetLevel()) {
    Logger::sDefaultLogger->SetLevel(LogLevel::Trivia);
}

LogCapture::~LogCapture() {
    Pelinor::Service::SetLogSink(previous);
    Logger::sDefaultLogger->SetLevel(previousLevel);
}

void LogCapture::Write(LogLevel level, std::string_view logger, std::string_view message) {
    std::lock_guard lock(mutex);
    lines.push_back({level, std::string(logger), std::string(message)});
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard lock(mutex);
    return lines;
}

bool LogCapture::Has(const std::string& message) const {
    return Count(message) > 0;
}

bool LogCapture::Has(LogLevel level, const std::string& message) const {
    auto all = Lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const LogLine& l) { return l.level == level && l.message == message; });
}

int LogCapture::Count(const std::string& message) const {
    auto all = Lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(),
                                          [&](const LogLine& l) { return l.message == message; }));
}

bool LogCapture::WaitFor(const std::string& message, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!Has(message)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

void LogCapture::Clear() {
    std::lock_guard lock(mutex);
    lines.clear();
}

}  // namespace TessardTest
