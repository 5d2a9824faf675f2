// Checks of the resource pool before every launch, through the kernel's system information.
#include <cstring>

#include "platform/base/scope_guard.h"
#include "platform/kernel/ktab.h"
#include "plugins/plugin_launcher.h"
#include "plugins/plugin_schedule.h"

namespace Tessard {

using Pelinor::ScopeGuard;
using Pelinor::Ktab::Node;
using Pelinor::Ktab::ParamList;
using Pelinor::Ktab::Status;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

namespace {

constexpr size_t kBuildDateSize = 21;
constexpr uint64_t kNoGroup = ~uint64_t{0};

Pelinor::Ktab::Interface& Ktab() {
    return *Pelinor::Ktab::Interface::sInstance;
}

uint64_t KilobytesToMegabytes(uint64_t kilobytes) {
    return (kilobytes + 1023) / 1024;
}

uint64_t ReadUint64(const unsigned char* record, size_t offset) {
    uint64_t value;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

Status GetGroupId(uint64_t* id) {
    ParamList* params = Ktab().ParamListCreate(0, 1);
    if (params == nullptr) return Pelinor::Ktab::kOutOfMemory;
    Status status = Ktab().ParamListAddString(params, Pelinor::Ktab::kPoolPath);
    if (status == 0) {
        status = Ktab().Set(Node::sched_groupPathNameToID, nullptr, params, id, sizeof *id);
    }
    Ktab().ParamListDestroy(params);
    return status;
}

Status GetChildrenCount(unsigned long groupId, unsigned int* count) {
    ParamList* params = Ktab().ParamListCreate(1, 1);
    if (params == nullptr) return Pelinor::Ktab::kOutOfMemory;
    ScopeGuard destroyParams([params] { Ktab().ParamListDestroy(params); });
    Status status = Ktab().ParamListAddInt(params, groupId);
    if (status == 0) {
        ParamList* children = nullptr;
        status = Ktab().GetInstanceListAlloc(Node::sched_groups_members_groups, params, &children);
        if (status == 0) *count = Ktab().ParamListNumInstances(children);
        Ktab().ParamListDestroy(children);
    }
    return status;
}

}  // namespace

bool PluginLauncher::ResourcePoolPrechecks() {
    char buildDate[kBuildDateSize] = {};
    const char* myBuildDate = "";
    if (Ktab().CheckSig(buildDate, sizeof buildDate, &myBuildDate) != 0) {
        buildDate[kBuildDateSize - 1] = '\0';
        Log(logger, LogLevel::Error,
            "MD5 signature mismatch with running hyxvisor built on %1 (my build date: %2)",
            buildDate, myBuildDate);
        return false;
    }
    uint64_t groupId = kNoGroup;
    if (Status status = GetGroupId(&groupId); status != 0) {
        Log(logger, LogLevel::Error, "Group %1 was not found: %2", Pelinor::Ktab::kPoolPath,
            Pelinor::Ktab::ReturnStatusToString(status));
        return false;
    }
    unsigned int children = 0;
    if (Status status = GetChildrenCount(groupId, &children); status != 0) {
        Log(logger, LogLevel::Error, "Could not check group %1: %2", groupId,
            Pelinor::Ktab::ReturnStatusToString(status));
        return false;
    }
    Log(logger, LogLevel::Info, "%1 subgroups present in group %2", children, groupId);
    PrintGroupStats();
    return true;
}

bool PluginLauncher::PrintGroupStats() {
    ParamList* params = Ktab().ParamListCreate(1, 1);
    if (params == nullptr) {
        Log(logger, LogLevel::Error, "Couldn't create parameter list: Out of Memory");
        return false;
    }
    ScopeGuard destroyParams([params] { Ktab().ParamListDestroy(params); });

    uint64_t groupId = kNoGroup;
    if (Status status = GetGroupId(&groupId); status != 0) {
        Log(logger, LogLevel::Error, "Group %1 was not found: %2", Pelinor::Ktab::kPoolPath,
            Pelinor::Ktab::ReturnStatusToString(status));
        return false;
    }
    if (Status status = Ktab().ParamListAddInt(params, groupId); status != 0) {
        Log(logger, LogLevel::Error,
            "Adding the tessard-plugins group to the parameter list failed: %1",
            Pelinor::Ktab::ReturnStatusToString(status));
        return false;
    }
    unsigned char record[Pelinor::Ktab::kMemoryStatsSize];
    if (Status status =
            Ktab().Get(Node::sched_groups_stats_memoryStats, params, record, sizeof record);
        status != 0) {
        Log(logger, LogLevel::Error,
            "Failed to retrieve memory statistics of the tessard-plugins group: %1",
            Pelinor::Ktab::ReturnStatusToString(status));
        return false;
    }
    Log(logger, LogLevel::Info,
        "Peak requested reservation (MB): %1, Peak requested reservation of children groups (MB): "
        "%2",
        KilobytesToMegabytes(ReadUint64(record, Pelinor::Ktab::kPeakReservationOffset)),
        KilobytesToMegabytes(ReadUint64(record, Pelinor::Ktab::kChildrenPeakReservationOffset)));
    return true;
}

PoolFigures ReadPoolFigures() {
    PoolFigures figures;
    uint64_t groupId = kNoGroup;
    if (Status status = GetGroupId(&groupId); status != 0) {
        figures.problem = Pelinor::Ktab::ReturnStatusToString(status);
        return figures;
    }
    unsigned int children = 0;
    ParamList* params = Ktab().ParamListCreate(1, 1);
    if (params == nullptr) return figures;
    ScopeGuard destroyParams([params] { Ktab().ParamListDestroy(params); });
    unsigned char record[Pelinor::Ktab::kMemoryStatsSize];
    Status status = GetChildrenCount(groupId, &children);
    if (status == 0) status = Ktab().ParamListAddInt(params, groupId);
    if (status == 0)
        status = Ktab().Get(Node::sched_groups_stats_memoryStats, params, record, sizeof record);
    if (status != 0) {
        figures.problem = Pelinor::Ktab::ReturnStatusToString(status);
        return figures;
    }
    figures.found = true;
    figures.childGroups = children;
    figures.peakKb = ReadUint64(record, Pelinor::Ktab::kPeakReservationOffset);
    figures.childrenPeakKb = ReadUint64(record, Pelinor::Ktab::kChildrenPeakReservationOffset);
    return figures;
}

}  // namespace Tessard
