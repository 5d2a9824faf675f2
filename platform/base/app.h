// The application frame: registration, configuration, logger, run until told to stop.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/config.h"
#include "platform/base/logging.h"
#include "platform/threads/scheduler.h"

namespace Pelinor::Service {

struct AppInfo {
    std::string name;
    std::string version;
    int32_t buildNumber = 0;
    int32_t reserved = 0;
};

void SetAppInfo(const AppInfo& info);
const AppInfo& GetAppInfo();
// Loads the configuration, applies "log/level", ignores SIGUSR1, SIGUSR2 and SIGPIPE, and
// blocks SIGTERM, SIGINT and SIGHUP in every thread started afterwards, so that only Run()
// receives them.
void InitApp(const std::string& configPath);
// Sets the level of every logger from "log/level" (info when absent); a value that is not a
// level is reported and changes nothing.
void ApplyLogLevel(const Config& config);

// What Run() does besides waiting for the stop signals.
struct RunHooks {
    std::function<void()> reload;  // on SIGHUP
    std::function<void()> tick;    // every tickPeriod
    std::chrono::milliseconds tickPeriod{1000};
};

class App {
  public:
    Ref<Logger> GetLogger() const { return logger; }
    void GetConfig(Ref<Config>& out) const {
        std::lock_guard lock(configMutex);
        out = config;
    }
    // A reload's configuration: readers from then on get it.
    void SetConfig(const Ref<Config>& replacement) {
        std::lock_guard lock(configMutex);
        config = replacement;
    }
    const std::string& GetConfigPath() const { return configPath; }
    System::Scheduler& GetScheduler() const { return *System::Scheduler::sInstance; }
    // Blocks until SIGTERM or SIGINT; tells a supervising systemd when ready, reloading and
    // stopping.
    void Run(const RunHooks& hooks = {});

  private:
    friend void InitApp(const std::string&);
    friend App& GetApp();
    App() = default;
    Ref<Logger> logger;
    mutable std::mutex configMutex;
    Ref<Config> config;
    std::string configPath;
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

struct LongOption {
    const char* name;  // without the leading "--"
    char letter;       // what onOption receives for it
};
// Walks the command line with getopt_long; calls onOption(letter, argument) for each
// known option. Returns false at an unknown option or a missing argument.
bool ForEachOption(int argc, char** argv, const char* options,
                   const std::vector<LongOption>& longOptions,
                   const std::function<void(char, const char*)>& onOption);

// Why a report directory cannot take reports ("" when it can): missing, not a directory,
// not writable.
std::string DirectoryProblem(const std::string& path);

int ProcessId();

}  // namespace Pelinor::System

// Initialises the platform's feature switches.
void FeatureState_Init();
