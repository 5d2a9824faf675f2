// Writes the status file, and the Prometheus textfile when configured, from the main thread.
#pragma once

#include <string>

#include "daemon/status_board.h"
#include "platform/base/logging.h"

namespace Tessard {

constexpr const char* kStatusFilePath = "/run/tessard/status.json";
constexpr const char* kTextfileName = "tessard.prom";
// Written at least this often even when nothing changed, so readers can tell it is alive.
constexpr std::chrono::seconds kStatusRefresh{60};
constexpr std::chrono::seconds kPoolRefresh{5};

class StatusPublisher {
  public:
    StatusPublisher(StatusBoard& board, std::string statusPath,
                    Pelinor::Ref<Pelinor::Service::Logger> logger);
    // Called on every tick of the main thread: writes when something changed or it is time.
    void Tick(Clock::time_point now);

  private:
    void Write(const std::string& path, const std::string& content);

    StatusBoard& board;
    const std::string statusPath;
    const Pelinor::Ref<Pelinor::Service::Logger> logger;
    Clock::time_point lastWrite{};
    Clock::time_point lastPool{};
    std::string lastProblem;  // logged once, until it changes
};

// `tessard status [--json]`: prints the running daemon's status file.
int RunStatusCommand(int argc, char** argv);

}  // namespace Tessard
