// Launching plugins into the resource pool, and stopping them.
#include "platform/app.h"
#include "platform/process.h"
#include "plugins/plugin_launcher.h"

namespace Tessard {

using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;
using Pelinor::System::ProcessLauncher;

void PluginLauncher::LaunchPlugin(const std::shared_ptr<Plugin>& plugin,
                                  std::vector<int32_t>& trackedPids) {
    char* const* arguments = plugin->GetArguments();
    if (!ResourcePoolPrechecks()) {
        Log(logger, LogLevel::Error, "Failed resource pool prechecks; cannot launch plugin: %1",
            plugin->GetCommandLine());
        return;
    }
    Log(logger, LogLevel::Info, "Launching binary: %1", plugin->GetCommandLine());

    ProcessLauncher& launcher = *ProcessLauncher::sInstance;
    int32_t pid = -1;
    if (int error = launcher.Launch(arguments[0], arguments, pid); error != 0) {
        Log(logger, LogLevel::Error, "Plugin launch failed: %1", Pelinor::System::ErrorText(error));
        PrintGroupStats();
        return;
    }
    if (int error = launcher.Signal(pid, Pelinor::System::kSignalProbe); error != 0) {
        Log(logger, LogLevel::Error, "Plugin launched but failed to run: %1",
            Pelinor::System::ErrorText(error));
        launcher.Forget(pid);
        PrintGroupStats();
        return;
    }
    trackedPids.push_back(pid);
    Log(logger, LogLevel::Verbose, "Pushed plugin %1 (%2) for tracking", plugin->completePath, pid);
}

void PluginLauncher::KillPlugins(std::vector<int32_t>& trackedPids) {
    ProcessLauncher& launcher = *ProcessLauncher::sInstance;
    for (int32_t pid : trackedPids) {
        int probe = launcher.Signal(pid, Pelinor::System::kSignalProbe);
        if (probe == Pelinor::System::kNoSuchProcess) {
            Log(logger, LogLevel::Trivia, "%1 already killed", pid);
        } else if (probe == 0) {
            // One signal only: no waiting, no escalation.
            if (int error = launcher.Signal(pid, Pelinor::System::kSignalTerminate); error == 0) {
                Log(logger, LogLevel::Info, "%1 killed", pid);
            } else {
                Log(logger, LogLevel::Error, "Could not kill %1: %2", pid, error);
            }
        }
        launcher.Forget(pid);
    }
    trackedPids.clear();
}

}  // namespace Tessard
