#include "platform/base/logging.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>

#include "platform/base/format.h"

namespace Pelinor::Service {

namespace {

constexpr std::array<std::string_view, 5> kLevelNames = {"error", "warning", "info", "verbose",
                                                         "trivia"};

class StderrSink : public LogSink {
  public:
    StderrSink() : journal(std::getenv("JOURNAL_STREAM") != nullptr) {}

    void Write(LogLevel level, std::string_view logger, std::string_view message) override {
        std::string line;
        line.reserve(64 + logger.size() + message.size());
        if (journal) {
            line += '<';
            line += static_cast<char>('0' + static_cast<int>(level));
            line += '>';
        } else {
            AppendUtc(line, std::chrono::system_clock::now(), /*milliseconds=*/true);
            line += ' ';
            line += LevelName(level);
            line += ' ';
        }
        line += logger;
        line += ": ";
        line += message;
        line += '\n';
        // One write per line, so that lines of different threads never interleave.
        for (size_t done = 0; done < line.size();) {
            ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
    }

  private:
    const bool journal;
};

StderrSink& DefaultSink() {
    static StderrSink sink;
    return sink;
}

std::atomic<LogSink*> currentSink{nullptr};

}  // namespace

std::string_view LevelName(LogLevel level) {
    int index = static_cast<int>(level) - static_cast<int>(LogLevel::Error);
    return index >= 0 && index < static_cast<int>(kLevelNames.size()) ? kLevelNames[index] : "?";
}

bool ParseLevel(std::string_view text, LogLevel& level) {
    for (int i = 0; i < static_cast<int>(kLevelNames.size()); ++i) {
        int number = static_cast<int>(LogLevel::Error) + i;
        if (text == kLevelNames[i] || (text.size() == 1 && text[0] == '0' + number)) {
            level = static_cast<LogLevel>(number);
            return true;
        }
    }
    return false;
}

Ref<Logger> Logger::sDefaultLogger = MakeRef<Logger>("default", Ref<Logger>());

Logger::Logger(std::string name, Ref<Logger> parent)
    : name(std::move(name)), parent(std::move(parent)) {
    if (!this->parent) ownLevel = static_cast<int>(LogLevel::Info);
}

Ref<Logger> Logger::CreateLogger(const Ref<Logger>& parent, const std::string& name) {
    return MakeRef<Logger>(name, parent);
}

LogLevel Logger::GetLevel() const {
    int level = ownLevel.load(std::memory_order_relaxed);
    return level != 0 ? static_cast<LogLevel>(level) : parent->GetLevel();
}

LogSink* SetLogSink(LogSink* sink) {
    return currentSink.exchange(sink);
}

void LogInternal(const Ref<Logger>& logger, LogLevel level, std::string_view format,
                 std::initializer_list<FormatArg> args) {
    LogSink* sink = currentSink.load();
    if (sink == nullptr) sink = &DefaultSink();
    sink->Write(level, logger->GetName(), FormatPositional(format, args));
}

}  // namespace Pelinor::Service
