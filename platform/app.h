// The application frame: registration, configuration, logger, run until told to stop.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/config.h"
#include "platform/logging.h"
#include "platform/scheduler.h"

namespace Pelinor::Service {

struct AppInfo {
    std::string name;
    std::string version;
    int32_t buildNumber = 0;
    int32_t reserved = 0;
};

void SetAppInfo(const AppInfo& info);
// Loads the configuration, applies "log/level" and blocks SIGTERM and SIGINT in
// every thread started afterwards, so that only Run() receives them.
void InitApp(const std::string& configPath);

class App {
  public:
    Ref<Logger> GetLogger() const { return logger; }
    void GetConfig(Ref<Config>& out) const { out = config; }
    System::Scheduler& GetScheduler() const { return *System::Scheduler::sInstance; }
    // Blocks until SIGTERM or SIGINT; tells a supervising systemd when ready and when stopping.
    void Run();

  private:
    friend void InitApp(const std::string&);
    friend App& GetApp();
    App() = default;
    Ref<Logger> logger;
    Ref<Config> config;
};

App& GetApp();

}  // namespace Pelinor::Service

namespace Pelinor::System {

[[noreturn]] void QuickExit(int code);

// Prefixes a fixed system path with $TESSARD_ROOT (empty by default).
std::string RootedPath(const std::string& path);

// Sets SIGCHLD to its default: plugins are reaped through their pidfds, which an ignored
// SIGCHLD would defeat (the kernel would reap them first). 0 or an errno value.
int DefaultChildSignals();
std::string ErrorText(int error);

// Walks the command line with getopt; calls onOption(letter, argument) for each
// known option. Returns false at an unknown option or a missing argument.
bool ForEachOption(int argc, char** argv, const char* options,
                   const std::function<void(char, const char*)>& onOption);

}  // namespace Pelinor::System

// Initialises the platform's feature switches.
void FeatureState_Init();
