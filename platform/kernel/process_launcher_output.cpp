// Carries a plugin's stdout and stderr into the log a line at a time, prefixed with its
// name, up to a cap per run.
#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/logging.h"
#include "platform/kernel/process_launcher.h"

namespace Pelinor::System::Launcher {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::LogLevel;

// Output of one run that reaches the log; the rest is read and dropped.
constexpr size_t kOutputCap = 64 * 1024;

}  // namespace

void LinuxProcessLauncher::ReadOutput(const std::shared_ptr<Run>& run, OutputStream& stream) {
    stream.pipe.async_read_some(
        net::buffer(stream.buffer),
        [this, run, &stream](const boost::system::error_code& error, size_t size) {
            std::lock_guard lock(mutex);
            if (!stream.pipe.is_open()) return;
            Take(*run, stream, std::string_view(stream.buffer.data(), size));
            if (!error) {
                ReadOutput(run, stream);
            } else {
                Finish(*run, stream);
            }
        });
}

// What is in the pipe now, without waiting: at most a cap's worth, as what it left
// running may keep writing.
void LinuxProcessLauncher::Drain(Run& run, OutputStream& stream) {
    for (size_t drained = 0; stream.pipe.is_open() && drained < kOutputCap;) {
        // Not the stream's buffer: a read already done for the pending handler may be in it.
        std::array<char, kReadChunk> chunk;
        ssize_t got = ::read(stream.pipe.native_handle(), chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) continue;
        if (got == 0) Finish(run, stream);
        if (got <= 0) return;
        Take(run, stream, std::string_view(chunk.data(), static_cast<size_t>(got)));
        drained += static_cast<size_t>(got);
    }
}

void LinuxProcessLauncher::Take(Run& run, OutputStream& stream, std::string_view data) {
    while (!data.empty()) {
        size_t newline = data.find('\n');
        if (newline == std::string_view::npos) {
            if (stream.partial.size() + data.size() > kOutputCap) {
                MarkTruncated(run);
                stream.partial.clear();
            } else {
                stream.partial.append(data);
            }
            return;
        }
        stream.partial.append(data.substr(0, newline));
        Emit(run, stream);
        data.remove_prefix(newline + 1);
    }
}

void LinuxProcessLauncher::Finish(Run& run, OutputStream& stream) {
    if (!stream.partial.empty()) Emit(run, stream);
    stream.pipe.close();
}

void LinuxProcessLauncher::Emit(Run& run, OutputStream& stream) {
    std::string line = std::move(stream.partial);
    stream.partial.clear();
    if (run.truncated) return;
    if (run.logged + line.size() + 1 > kOutputCap) {
        MarkTruncated(run);
        return;
    }
    run.logged += line.size() + 1;
    if (run.options.logger) Log(run.options.logger, stream.level, "%1: %2", run.options.name, line);
}

void LinuxProcessLauncher::MarkTruncated(Run& run) {
    if (run.truncated) return;
    run.truncated = true;
    if (run.options.logger) {
        Log(run.options.logger, LogLevel::Warning, "%1: output truncated at %2 bytes",
            run.options.name, kOutputCap);
    }
}

}  // namespace Pelinor::System::Launcher
