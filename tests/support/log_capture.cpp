#include "tests/support/log_capture.h"

#include <algorithm>

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

void LogCapture::Write(LogLevel level, std::string_view, std::string_view message) {
    std::lock_guard lock(mutex);
    lines.emplace_back(level, message);
}

bool LogCapture::Has(const std::string& message) const {
    std::lock_guard lock(mutex);
    return std::any_of(lines.begin(), lines.end(), [&](auto& l) { return l.second == message; });
}

bool LogCapture::Has(LogLevel level, const std::string& message) const {
    std::lock_guard lock(mutex);
    return std::find(lines.begin(), lines.end(), std::pair(level, message)) != lines.end();
}

void LogCapture::Clear() {
    std::lock_guard lock(mutex);
    lines.clear();
}

}  // namespace TessardTest
