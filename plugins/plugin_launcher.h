// Runs the health-check plugins: fast and slow categories cut into batches, each
// batch on its own timer stopping what its category ran before and launching its own
// plugins inside the resource pool.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/base/logging.h"
#include "platform/threads/scheduler.h"
#include "plugins/plugin.h"
#include "plugins/plugin_outcome.h"
#include "plugins/plugin_schedule.h"

namespace Tessard {

class PluginLauncher : public std::enable_shared_from_this<PluginLauncher> {
  public:
    struct PluginCategory {
        uint64_t batchSize;
        uint64_t period;           // seconds
        uint64_t initialDelay;     // seconds
        uint64_t throttleTimeout;  // seconds
        std::vector<std::shared_ptr<Plugin>> plugins;
        std::vector<Pelinor::Ref<Pelinor::System::ScheduledItem>> scheduledItems;  // per batch
        std::vector<int32_t> trackedPids;
    };

    static std::shared_ptr<PluginLauncher> GetInstance();
    PluginLauncher() = default;
    ~PluginLauncher();

    // Reads overrides and descriptions, fixes the fast period and schedules every batch.
    void Init();
    // Init without the scheduling: what would run, for a configuration check.
    void Load();
    // Reads overrides and descriptions again from the application's configuration and
    // reschedules every batch; what is running now is stopped by the next batch of its
    // category. On a failure nothing changes and the reason is logged; false then.
    // Runs on the scheduler's thread, like the batches.
    bool Reload();
    // What is scheduled now, fast plugins first.
    std::vector<PluginPlan> Plans() const;
    // Plugins described but disabled by the configuration, as of the last Load.
    const std::set<std::string>& Disabled() const { return disabled; }

    // Set before Init.
    void SetObserver(PluginObserver newObserver);
    // Who plugins run as from their next launch on; set before Init.
    void SetPluginUser(const Pelinor::System::Account& user) { pluginUser = user; }
    // For the daemon's stop: no batch runs any more, and every plugin's group is stopped.
    // Blocks until they are gone, for a bounded time.
    void Stop();

    // Descriptions and overrides.
    void ReadLauncherOverrides();
    void LoadPluginConfigurations();
    bool ReadPluginConfiguration(const std::string& path, PluginConfiguration& configuration);
    void ApplyPluginOverrides(PluginConfiguration& configuration);

    // Launching and stopping.
    void LaunchPlugin(const std::shared_ptr<Plugin>& plugin, std::vector<int32_t>& trackedPids);
    void KillPlugins(std::vector<int32_t>& trackedPids);

    // Resource pool.
    bool ResourcePoolPrechecks();
    bool PrintGroupStats();

  private:
    void ScheduleAll();
    void ScheduleLaunches(std::unique_ptr<PluginCategory>& category);
    void ScheduleEachBatch(unsigned long batchIndex, unsigned long firstPlugin,
                           std::unique_ptr<PluginCategory>& category);
    void Schedule(std::unique_ptr<PluginCategory>& category, unsigned long batchIndex,
                  unsigned long firstPlugin, uint64_t delaySeconds,
                  Pelinor::Ref<Pelinor::System::ScheduledItem>& item);
    // The category whose tracked list this is; nullptr for any other list.
    const PluginCategory* CategoryOf(const std::vector<int32_t>& trackedPids) const;
    // Logs how a run ended, with the plugin's name, and tells the observer.
    void Report(const PluginRunOutcome& outcome, const std::string& reason = {});

    Pelinor::Ref<Pelinor::Service::Logger> logger;
    std::unique_ptr<PluginCategory> fastCategory;
    std::unique_ptr<PluginCategory> slowCategory;
    // Bumped by Reload: callbacks armed before it do nothing when they fire.
    uint64_t generation = 0;
    std::set<std::string> disabled;
    PluginObserver observer;
    Pelinor::System::Account pluginUser{kNobodyId, kNobodyId, kFallbackPluginUser};
    bool stopping = false;  // the daemon stops: on the event loop only
};

}  // namespace Tessard
