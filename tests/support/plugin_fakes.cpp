#include "tests/support/plugin_fakes.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace TessardTest {

using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::Ktab::Node;
using Pelinor::Ktab::ParamList;
using Pelinor::Ktab::Status;

namespace {

class ManualItem : public Pelinor::System::ScheduledItem {
  public:
    explicit ManualItem(Pelinor::System::ScheduledCallback callback)
        : callback(std::move(callback)) {}
    void Cancel() override { cancelled = true; }
    void Fire() {
        if (!cancelled) callback(this);
    }

  private:
    Pelinor::System::ScheduledCallback callback;
    bool cancelled = false;
};

}  // namespace

ManualScheduler::ManualScheduler() : previous(Scheduler::sInstance) {
    Scheduler::sInstance = this;
}
ManualScheduler::~ManualScheduler() {
    Scheduler::sInstance = previous;
}

void ManualScheduler::Schedule(const Pelinor::System::ScheduledCallback& callback, int64_t delayUs,
                               Ref<Pelinor::System::ScheduledItem>& item) {
    item = MakeRef<ManualItem>(callback);
    queue.emplace(std::make_pair(nowUs + delayUs, sequence++), item);
}

void ManualScheduler::RunUntil(double seconds) {
    auto until = static_cast<int64_t>(seconds * 1e6);
    while (!queue.empty() && queue.begin()->first.first <= until) {
        auto next = queue.begin();
        nowUs = next->first.first;
        Ref<Pelinor::System::ScheduledItem> item = next->second;
        queue.erase(next);
        static_cast<ManualItem*>(item.Get())->Fire();
    }
    nowUs = until;
}

FakeKtab::FakeKtab() : previous(Interface::sInstance) {
    Interface::sInstance = this;
}
FakeKtab::~FakeKtab() {
    Interface::sInstance = previous;
}

int FakeKtab::CheckSig(char* buildDate, size_t size, const char** myBuildDate) {
    if (signatureMatches) return 0;
    std::memset(buildDate, 'K', size);  // no terminator: the caller must add it
    *myBuildDate = "Nov 23 2026";
    return 1;
}

ParamList* FakeKtab::ParamListCreate(int, int) {
    if (creates++ == failCreateAt) return nullptr;
    auto* list = reinterpret_cast<ParamList*>(static_cast<intptr_t>(nextList++));
    lists[list];
    return list;
}

Status FakeKtab::ParamListAddString(ParamList* list, const char*) {
    return lists.count(list) ? 0 : EINVAL;
}

Status FakeKtab::ParamListAddInt(ParamList* list, uint64_t value) {
    if (addIntStatus != 0) return addIntStatus;
    if (!lists.count(list)) return EINVAL;
    lists[list].push_back(value);
    return 0;
}

uint32_t FakeKtab::ParamListNumInstances(const ParamList* list) {
    auto found = lists.find(const_cast<ParamList*>(list));
    return found == lists.end() ? 0 : static_cast<uint32_t>(found->second.size());
}

void FakeKtab::ParamListDestroy(ParamList* list) {
    if (list == nullptr) return;
    if (lists.erase(list) == 0) throw std::logic_error("list destroyed twice");
}

Status FakeKtab::Set(Node node, ParamList*, ParamList* params, void* out, size_t outSize) {
    if (node != Node::sched_groupPathNameToID || !lists.count(params) || outSize != 8)
        return EINVAL;
    if (lookupStatus != 0) return lookupStatus;
    std::memcpy(out, &groupId, sizeof groupId);
    return 0;
}

Status FakeKtab::GetInstanceListAlloc(Node node, ParamList* params, ParamList** out) {
    if (node != Node::sched_groups_members_groups || !lists.count(params)) return EINVAL;
    if (lists[params] != std::vector<uint64_t>{groupId}) return ENOENT;
    if (childrenStatus != 0) return childrenStatus;
    *out = reinterpret_cast<ParamList*>(static_cast<intptr_t>(nextList++));
    lists[*out] = std::vector<uint64_t>(childCount, 0);
    return 0;
}

Status FakeKtab::Get(Node node, ParamList* params, void* out, size_t outSize) {
    if (node != Node::sched_groups_stats_memoryStats || !lists.count(params) ||
        outSize != Pelinor::Ktab::kMemoryStatsSize) {
        return EINVAL;
    }
    if (lists[params] != std::vector<uint64_t>{groupId}) return ENOENT;
    if (statsStatus != 0) return statsStatus;
    auto* record = static_cast<unsigned char*>(out);
    std::memset(record, 0xee, outSize);
    std::memcpy(record + Pelinor::Ktab::kPeakReservationOffset, &peakKb, 8);
    std::memcpy(record + Pelinor::Ktab::kChildrenPeakReservationOffset, &childrenPeakKb, 8);
    return 0;
}

FakeProcessLauncher::FakeProcessLauncher() : previous(ProcessLauncher::sInstance) {
    ProcessLauncher::sInstance = this;
}
FakeProcessLauncher::~FakeProcessLauncher() {
    ProcessLauncher::sInstance = previous;
}

int FakeProcessLauncher::Launch(const char* path, char* const argv[],
                                const Pelinor::System::RunOptions& options, int32_t& pid) {
    if (launchError != 0) return launchError;
    pid = nextPid++;
    std::vector<std::string> args;
    for (char* const* arg = argv; *arg != nullptr; ++arg) args.emplace_back(*arg);
    if (args.empty() || args[0] != path) return EINVAL;
    launches.push_back({pid, args, clock ? clock->Now() : 0, options});
    if (!exitAtOnce) alive.insert(pid);
    return 0;
}

int FakeProcessLauncher::Signal(int32_t pid, int) {
    return alive.count(pid) ? probeError : ESRCH;
}

int FakeProcessLauncher::Stop(int32_t pid, std::chrono::milliseconds grace) {
    if (!alive.count(pid)) return ESRCH;
    if (terminateError != 0) return terminateError;
    terminated.push_back({pid, clock ? clock->Now() : 0, grace});
    Pelinor::System::RunEnd end;
    end.stopped = true;
    end.signalled = true;
    end.status = 15;  // SIGTERM
    End(pid, end);
    return 0;
}

void FakeProcessLauncher::End(int32_t pid, Pelinor::System::RunEnd end) {
    if (alive.erase(pid) == 0) return;
    for (const auto& launch : launches) {
        if (launch.pid == pid && launch.options.onEnd) launch.options.onEnd(end);
    }
}

}  // namespace TessardTest
