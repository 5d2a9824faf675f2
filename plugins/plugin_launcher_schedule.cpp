// Scheduling: every batch of a category on its own timer, re-armed after each run.
#include <chrono>
#include <future>

#include "platform/base/app.h"
#include "platform/kernel/process.h"
#include "plugins/plugin_launcher.h"

namespace Tessard {

using Pelinor::Service::Log;
using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;

namespace {
constexpr uint64_t kFastBatchSize = 1;
constexpr uint64_t kFastDelay = 30;  // initial delay and throttle timeout, seconds
constexpr uint64_t kSlowBatchSize = 2;
constexpr uint64_t kSlowPeriod = 300;
constexpr uint64_t kSlowDelay = 60;
constexpr int64_t kMicrosecondsPerSecond = 1'000'000;
// Time the daemon's stop gives the event loop to stop the plugins, and the plugins' groups
// beyond their grace to be gone.
constexpr auto kStopHandOver = std::chrono::seconds(5);
constexpr auto kStopMargin = std::chrono::seconds(6);
}  // namespace

std::shared_ptr<PluginLauncher> PluginLauncher::GetInstance() {
    static std::shared_ptr<PluginLauncher> instance = std::make_shared<PluginLauncher>();
    return instance;
}

PluginLauncher::~PluginLauncher() {
    if (fastCategory) KillPlugins(fastCategory->trackedPids);
    if (slowCategory) KillPlugins(slowCategory->trackedPids);
}

void PluginLauncher::Init() {
    Load();
    ScheduleAll();
}

void PluginLauncher::Load() {
    if (!logger) logger = Logger::CreateLogger(Logger::sDefaultLogger, "PluginLauncher");
    ReadLauncherOverrides();
    fastCategory = std::make_unique<PluginCategory>(
        PluginCategory{kFastBatchSize, fastTimePeriodMin * 60, kFastDelay, kFastDelay, {}, {}, {}});
    slowCategory = std::make_unique<PluginCategory>(
        PluginCategory{kSlowBatchSize, kSlowPeriod, kSlowDelay, kSlowDelay, {}, {}, {}});
    disabled.clear();
    LoadPluginConfigurations();

    // A whole cycle of fast batches must fit in one fast period.
    uint64_t fastPlugins = fastCategory->plugins.size();
    uint64_t minPeriod = fastPlugins * fastCategory->throttleTimeout;
    Log(logger, LogLevel::Info, "Number of fast plugins: %1, Throttle timeout: %2, Min period: %3",
        fastPlugins, fastCategory->throttleTimeout, minPeriod);
    if (minPeriod > fastTimePeriodMin * 60) {
        fastCategory->period = minPeriod;
        Log(logger, LogLevel::Info, "Updated the period of the fast plugin queue to %1", minPeriod);
    }
}

void PluginLauncher::ScheduleAll() {
    Log(logger, LogLevel::Info, "About to schedule fast plugins");
    ScheduleLaunches(fastCategory);
    Log(logger, LogLevel::Info, "About to schedule slow plugins");
    ScheduleLaunches(slowCategory);
    if (observer.scheduled) observer.scheduled(Plans());
}

bool PluginLauncher::Reload() {
    const uint64_t savedPeriod = fastTimePeriodMin;
    const int32_t savedPoolSize = resourcePoolSizeMb;
    auto runningFast = std::move(fastCategory);
    auto runningSlow = std::move(slowCategory);
    // Settings absent from the new configuration go back to their defaults.
    fastTimePeriodMin = kDefaultFastTimePeriodMin;
    resourcePoolSizeMb = kDefaultResourcePoolSizeMb;
    try {
        Load();
    } catch (const std::exception& e) {
        fastTimePeriodMin = savedPeriod;
        resourcePoolSizeMb = savedPoolSize;
        fastCategory = std::move(runningFast);
        slowCategory = std::move(runningSlow);
        Log(logger, LogLevel::Error, "Reload failed, the plugins keep their schedule: %1",
            e.what());
        return false;
    }
    ++generation;
    for (auto* running : {runningFast.get(), runningSlow.get()}) {
        if (running == nullptr) continue;
        for (auto& item : running->scheduledItems)
            if (item) item->Cancel();
    }
    // Whatever runs now is stopped by the next batch of its category, as without a reload.
    if (runningFast) fastCategory->trackedPids = std::move(runningFast->trackedPids);
    if (runningSlow) slowCategory->trackedPids = std::move(runningSlow->trackedPids);
    ScheduleAll();
    return true;
}

std::vector<PluginPlan> PluginLauncher::Plans() const {
    std::vector<PluginPlan> plans;
    for (const auto* category : {fastCategory.get(), slowCategory.get()}) {
        if (category == nullptr) continue;
        const char* name = category == fastCategory.get() ? "fast" : "slow";
        for (size_t i = 0; i < category->plugins.size(); ++i) {
            uint64_t batch = category->batchSize == 0 ? 0 : i / category->batchSize;
            plans.push_back(
                {category->plugins[i]->name, name, std::chrono::seconds(category->period),
                 std::chrono::seconds(category->initialDelay + batch * category->throttleTimeout),
                 static_cast<uint32_t>(resourcePoolSizeMb)});
        }
    }
    return plans;
}

void PluginLauncher::SetObserver(PluginObserver newObserver) {
    observer = std::move(newObserver);
}

void PluginLauncher::Stop() {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> handedOver = done->get_future();
    Pelinor::Ref<Pelinor::System::ScheduledItem> item;
    Pelinor::Service::GetApp().GetScheduler().Schedule(
        [self = shared_from_this(), done](Pelinor::System::ScheduledItem*) {
            self->stopping = true;  // batches that fire from now on do nothing
            for (auto* category : {self->fastCategory.get(), self->slowCategory.get()}) {
                if (category != nullptr) self->KillPlugins(category->trackedPids);
            }
            done->set_value();
        },
        0, item);
    if (handedOver.wait_for(kStopHandOver) == std::future_status::ready) {
        Pelinor::System::ProcessLauncher::sInstance->WaitIdle(kStopMargin);
    }
}

const PluginLauncher::PluginCategory* PluginLauncher::CategoryOf(
    const std::vector<int32_t>& trackedPids) const {
    for (const auto* category : {fastCategory.get(), slowCategory.get()}) {
        if (category != nullptr && &category->trackedPids == &trackedPids) return category;
    }
    return nullptr;
}

void PluginLauncher::Schedule(std::unique_ptr<PluginCategory>& category, unsigned long batchIndex,
                              unsigned long firstPlugin, uint64_t delaySeconds,
                              Pelinor::Ref<Pelinor::System::ScheduledItem>& item) {
    // Weak: the launcher holds its pending items, which must not hold it in return. A
    // callback armed before a reload does nothing.
    auto callback = [weak = weak_from_this(), &category, batchIndex, firstPlugin,
                     armed = generation](Pelinor::System::ScheduledItem*) {
        auto launcher = weak.lock();
        if (launcher && armed == launcher->generation) {
            launcher->ScheduleEachBatch(batchIndex, firstPlugin, category);
        }
    };
    Pelinor::Service::GetApp().GetScheduler().Schedule(
        callback, static_cast<int64_t>(delaySeconds) * kMicrosecondsPerSecond, item);
}

void PluginLauncher::ScheduleLaunches(std::unique_ptr<PluginCategory>& category) {
    if (category->plugins.empty()) return;
    unsigned long batchIndex = 0;
    for (unsigned long first = 0; first < category->plugins.size();
         first += category->batchSize, ++batchIndex) {
        category->scheduledItems.emplace_back();
        Pelinor::Ref<Pelinor::System::ScheduledItem> item;  // released at once
        Schedule(category, batchIndex, first,
                 category->throttleTimeout * batchIndex + category->initialDelay, item);
        Log(logger, LogLevel::Info, "Plugin %1 scheduled", batchIndex);
        if (category->batchSize == 0) break;
    }
}

void PluginLauncher::ScheduleEachBatch(unsigned long batchIndex, unsigned long firstPlugin,
                                       std::unique_ptr<PluginCategory>& category) {
    category->scheduledItems[batchIndex].Reset();
    if (stopping) return;
    KillPlugins(category->trackedPids);

    if (category->batchSize != 0) {
        const auto& plugins = category->plugins;
        uint64_t k = 0;
        for (; k < category->batchSize && firstPlugin + k < plugins.size(); ++k) {
            std::shared_ptr<Plugin> plugin = plugins[firstPlugin + k];
            Log(logger, LogLevel::Trivia, "About to launch plugin %1 in the batch", plugin->name);
            if (observer.started) observer.started(plugin->name, std::chrono::system_clock::now());
            LaunchPlugin(plugin, category->trackedPids);
        }
        if (k < category->batchSize) Log(logger, LogLevel::Trivia, "Reached end of plugin list");
    }

    Schedule(category, batchIndex, firstPlugin, category->period,
             category->scheduledItems[batchIndex]);
    Log(logger, LogLevel::Trivia, "Scheduled the next iteration");
}

}  // namespace Tessard
