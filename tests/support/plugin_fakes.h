// Test doubles for the plugin launcher's platform seams: a scheduler driven by a
// manual clock, a scripted kernel interface and a process launcher without processes.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/kernel/ktab.h"
#include "platform/kernel/process.h"
#include "platform/threads/scheduler.h"

namespace TessardTest {

class ManualScheduler : public Pelinor::System::Scheduler {
  public:
    ManualScheduler();
    ~ManualScheduler() override;

    void Schedule(const Pelinor::System::ScheduledCallback& callback, int64_t delayUs,
                  Pelinor::Ref<Pelinor::System::ScheduledItem>& item) override;
    // Runs every callback due up to `seconds` (absolute), in time order.
    void RunUntil(double seconds);
    double Now() const { return static_cast<double>(nowUs) / 1e6; }

  private:
    int64_t nowUs = 0;
    uint64_t sequence = 0;
    std::multimap<std::pair<int64_t, uint64_t>, Pelinor::Ref<Pelinor::System::ScheduledItem>> queue;
    Pelinor::System::Scheduler* previous;
};

class FakeKtab : public Pelinor::Ktab::Interface {
  public:
    FakeKtab();
    ~FakeKtab() override;

    // What the fake kernel answers.
    bool signatureMatches = true;
    Pelinor::Ktab::Status lookupStatus = 0;  // of the group path lookup
    uint64_t groupId = 42;
    Pelinor::Ktab::Status childrenStatus = 0;
    uint32_t childCount = 0;
    Pelinor::Ktab::Status statsStatus = 0;
    Pelinor::Ktab::Status addIntStatus = 0;
    uint64_t peakKb = 0;
    uint64_t childrenPeakKb = 0;
    int failCreateAt = -1;  // the n-th ParamListCreate (from 0) returns nullptr

    // What the daemon asked.
    int creates = 0;
    size_t Outstanding() const { return lists.size(); }

    int CheckSig(char* buildDate, size_t size, const char** myBuildDate) override;
    Pelinor::Ktab::ParamList* ParamListCreate(int kind, int count) override;
    Pelinor::Ktab::Status ParamListAddString(Pelinor::Ktab::ParamList* list,
                                             const char* text) override;
    Pelinor::Ktab::Status ParamListAddInt(Pelinor::Ktab::ParamList* list, uint64_t value) override;
    uint32_t ParamListNumInstances(const Pelinor::Ktab::ParamList* list) override;
    void ParamListDestroy(Pelinor::Ktab::ParamList* list) override;
    Pelinor::Ktab::Status Set(Pelinor::Ktab::Node node, Pelinor::Ktab::ParamList* instances,
                              Pelinor::Ktab::ParamList* params, void* out, size_t outSize) override;
    Pelinor::Ktab::Status GetInstanceListAlloc(Pelinor::Ktab::Node node,
                                               Pelinor::Ktab::ParamList* params,
                                               Pelinor::Ktab::ParamList** out) override;
    Pelinor::Ktab::Status Get(Pelinor::Ktab::Node node, Pelinor::Ktab::ParamList* params, void* out,
                              size_t outSize) override;

  private:
    std::map<Pelinor::Ktab::ParamList*, std::vector<uint64_t>> lists;  // the ints added
    int nextList = 1;
    Pelinor::Ktab::Interface* previous;
};

class FakeProcessLauncher : public Pelinor::System::ProcessLauncher {
  public:
    FakeProcessLauncher();
    ~FakeProcessLauncher() override;

    int launchError = 0;      // returned by Launch
    bool exitAtOnce = false;  // launched processes are gone before the probe
    int terminateError = 0;   // returned by Stop of a live process
    int probeError = 0;       // returned by probes of live processes, when non-zero

    struct Launch {
        int32_t pid;
        std::vector<std::string> argv;
        double at;  // scheduler time, when a ManualScheduler is given
        Pelinor::System::RunOptions options;
    };
    std::vector<Launch> launches;
    struct Stopped {
        int32_t pid;
        double at;
        std::chrono::milliseconds grace;
    };
    std::vector<Stopped> terminated;  // live processes that Stop reached
    std::set<int32_t> alive;
    const ManualScheduler* clock = nullptr;

    // Ends a live run as the kernel would tell it.
    void End(int32_t pid, Pelinor::System::RunEnd end);

    int Launch(const char* path, char* const argv[], const Pelinor::System::RunOptions& options,
               int32_t& pid) override;
    int Signal(int32_t pid, int signal) override;
    int Stop(int32_t pid, std::chrono::milliseconds grace) override;
    bool WaitIdle(std::chrono::milliseconds) override { return true; }

  private:
    int32_t nextPid = 1000;
    Pelinor::System::ProcessLauncher* previous;
};

}  // namespace TessardTest
