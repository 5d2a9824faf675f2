// The kernel's system-information interface: resource groups, as cgroups on Linux.
//
// The resource pool lives under $TESSARD_CGROUP_ROOT (default /sys/fs/cgroup): in the
// root itself when it is a cgroup v2 mount or a cgroup v1 memory group, else in its
// memory/ child when that is a cgroup v1 memory hierarchy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Pelinor::Ktab {

// The plugins' resource pool, as a group path below the hierarchy.
inline constexpr const char* kPoolPath = "host/zol/kelpod/tessard-plugins";

// 0 for success, else an errno value or kOutOfMemory.
using Status = uint32_t;
constexpr Status kOutOfMemory = 0xbad0014;

// Node ids of the interface's queries.
enum class Node : uint16_t {
    sched_groupPathNameToID = 1,         // Set: group path -> 64-bit group id
    sched_groups_members_groups = 2,     // GetInstanceListAlloc: child groups of a group id
    sched_groups_stats_memoryStats = 3,  // Get: the 384-byte memory statistics record
};

// Memory statistics record: peaks in KB, in host byte order, unaligned.
constexpr size_t kMemoryStatsSize = 384;
constexpr size_t kPeakReservationOffset = 309;
constexpr size_t kChildrenPeakReservationOffset = 374;

// Arguments of a query (texts and numbers), or the instances a query returned.
struct ParamList;

class Interface {
  public:
    virtual ~Interface() = default;

    // 0 when the interface matches the running kernel; otherwise the kernel's build date
    // goes into `buildDate` (NUL-terminated when it fits) and `myBuildDate` to ours.
    virtual int CheckSig(char* buildDate, size_t size, const char** myBuildDate) = 0;
    // nullptr when out of memory.
    virtual ParamList* ParamListCreate(int kind, int count) = 0;
    virtual Status ParamListAddString(ParamList* list, const char* text) = 0;
    virtual Status ParamListAddInt(ParamList* list, uint64_t value) = 0;
    virtual uint32_t ParamListNumInstances(const ParamList* list) = 0;
    // Accepts nullptr.
    virtual void ParamListDestroy(ParamList* list) = 0;
    virtual Status Set(Node node, ParamList* instances, ParamList* params, void* out,
                       size_t outSize) = 0;
    virtual Status GetInstanceListAlloc(Node node, ParamList* params, ParamList** out) = 0;
    virtual Status Get(Node node, ParamList* params, void* out, size_t outSize) = 0;

    // The interface in use; the cgroup one unless a test installed another.
    static Interface* sInstance;
    static Interface& Real();
};

std::string ReturnStatusToString(Status status);

}  // namespace Pelinor::Ktab
