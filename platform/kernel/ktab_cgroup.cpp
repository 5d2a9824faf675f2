// The kernel-information interface answered from the cgroup file system: a group id is
// the inode number of the group's directory, a group's children are its subdirectories.
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>
#include <variant>
#include <vector>

#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/ktab.h"

namespace Pelinor::Ktab {

struct ParamList {
    int kind = 0;
    std::vector<std::variant<std::string, uint64_t>> values;
};

namespace {

constexpr const char* kBuildDate = TESSARD_BUILD_DATE;
constexpr uint32_t kLargestErrno = 4095;

const std::string* SoleText(const ParamList* params) {
    if (params == nullptr || params->values.size() != 1) return nullptr;
    return std::get_if<std::string>(&params->values.front());
}

bool SoleNumber(const ParamList* params, uint64_t& value) {
    if (params == nullptr || params->values.size() != 1) return false;
    const auto* number = std::get_if<uint64_t>(&params->values.front());
    if (number != nullptr) value = *number;
    return number != nullptr;
}

// A group path below the hierarchy; a leading '/' is allowed, ".." is not.
bool ToRelativePath(const std::string& text, std::string& relative) {
    relative = text.substr(std::min(text.find_first_not_of('/'), text.size()));
    for (size_t start = 0; start <= relative.size();) {
        size_t end = std::min(relative.find('/', start), relative.size());
        if (relative.compare(start, end - start, "..") == 0) return false;
        start = end + 1;
    }
    return true;
}

// Fields are in host order: the reader copies them straight out of the record.
void PutUint64(uint8_t* out, uint64_t value) {
    std::memcpy(out, &value, sizeof value);
}

struct Group {
    std::string path;
    Cgroup::Kind kind;
};

class CgroupKtab : public Interface {
  public:
    int CheckSig(char* buildDate, size_t size, const char** myBuildDate) override {
        Cgroup::Hierarchy hierarchy;
        if (Cgroup::FindHierarchy(hierarchy)) return 0;
        if (buildDate != nullptr && size > 0) {
            utsname names{};
            const char* release = ::uname(&names) == 0 ? names.release : "";
            size_t length = std::min(std::strlen(release), size - 1);
            std::memcpy(buildDate, release, length);
            buildDate[length] = '\0';
        }
        if (myBuildDate != nullptr) *myBuildDate = kBuildDate;
        return ENOENT;
    }

    // The C-style interface hands lists to its caller as owning raw pointers, so this
    // and ParamListDestroy are the one place where ownership leaves a smart pointer.
    ParamList* ParamListCreate(int kind, int count) override {
        try {
            auto list = std::make_unique<ParamList>();
            list->kind = kind;
            if (count > 0) list->values.reserve(static_cast<size_t>(count));
            return list.release();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    void ParamListDestroy(ParamList* list) override { std::unique_ptr<ParamList> owned(list); }

    Status ParamListAddString(ParamList* list, const char* text) override {
        if (list == nullptr || text == nullptr) return EINVAL;
        try {
            list->values.emplace_back(std::string(text));
            return 0;
        } catch (const std::bad_alloc&) {
            return kOutOfMemory;
        }
    }

    Status ParamListAddInt(ParamList* list, uint64_t value) override {
        if (list == nullptr) return EINVAL;
        try {
            list->values.emplace_back(value);
            return 0;
        } catch (const std::bad_alloc&) {
            return kOutOfMemory;
        }
    }

    uint32_t ParamListNumInstances(const ParamList* list) override {
        return list == nullptr ? 0 : static_cast<uint32_t>(list->values.size());
    }

    Status Set(Node node, ParamList*, ParamList* params, void* out, size_t outSize) override {
        const std::string* path = SoleText(params);
        if (node != Node::sched_groupPathNameToID || path == nullptr || out == nullptr ||
            outSize != sizeof(uint64_t)) {
            return EINVAL;
        }
        try {
            std::string relative;
            if (!ToRelativePath(*path, relative)) return EINVAL;
            Cgroup::Hierarchy hierarchy;
            if (!Cgroup::FindHierarchy(hierarchy)) return ENOENT;
            Group group{relative.empty() ? hierarchy.path : hierarchy.path + "/" + relative,
                        hierarchy.kind};
            struct stat status {};
            if (::stat(group.path.c_str(), &status) != 0) return errno;
            if (!S_ISDIR(status.st_mode)) return ENOTDIR;
            uint64_t id = status.st_ino;
            {
                std::lock_guard lock(mutex);
                groups.insert_or_assign(id, std::move(group));
            }
            std::memcpy(out, &id, sizeof id);
            return 0;
        } catch (const std::bad_alloc&) {
            return kOutOfMemory;
        }
    }

    Status GetInstanceListAlloc(Node node, ParamList* params, ParamList** out) override {
        if (out != nullptr) *out = nullptr;
        uint64_t id = 0;
        if (node != Node::sched_groups_members_groups || !SoleNumber(params, id) ||
            out == nullptr) {
            return EINVAL;
        }
        try {
            Group group;
            if (Status status = Resolve(id, group)) return status;
            std::vector<std::string> names;
            if (int error = Cgroup::ListChildGroups(group.path, names)) return error;
            auto list = std::make_unique<ParamList>();
            list->values.assign(names.begin(), names.end());
            *out = list.release();  // released by ParamListDestroy
            return 0;
        } catch (const std::bad_alloc&) {
            return kOutOfMemory;
        }
    }

    Status Get(Node node, ParamList* params, void* out, size_t outSize) override {
        uint64_t id = 0;
        if (node != Node::sched_groups_stats_memoryStats || !SoleNumber(params, id) ||
            out == nullptr || outSize != kMemoryStatsSize) {
            return EINVAL;
        }
        try {
            Group group;
            if (Status status = Resolve(id, group)) return status;
            const char* peakFile = Cgroup::PeakFile(group.kind);
            uint64_t peakBytes = 0;
            if (int error = Cgroup::ReadNumber(group.path + "/" + peakFile, peakBytes)) {
                return error;
            }
            std::vector<std::string> names;
            if (int error = Cgroup::ListChildGroups(group.path, names)) return error;
            uint64_t childrenKb = 0;
            for (const auto& name : names) {
                uint64_t bytes = 0;
                int error = Cgroup::ReadNumber(group.path + "/" + name + "/" + peakFile, bytes);
                if (error == ENOENT) continue;  // removed since the listing
                if (error != 0) return error;
                childrenKb += bytes / 1024;
            }
            auto* record = static_cast<uint8_t*>(out);
            std::memset(record, 0, kMemoryStatsSize);
            PutUint64(record + kPeakReservationOffset, peakBytes / 1024);
            PutUint64(record + kChildrenPeakReservationOffset, childrenKb);
            return 0;
        } catch (const std::bad_alloc&) {
            return kOutOfMemory;
        }
    }

  private:
    // An id is only good while its directory stands: a group removed and made again
    // gets a new inode, and the old id then names nothing.
    Status Resolve(uint64_t id, Group& group) {
        {
            std::lock_guard lock(mutex);
            auto found = groups.find(id);
            if (found == groups.end()) return ENOENT;
            group = found->second;
        }
        struct stat status {};
        if (::stat(group.path.c_str(), &status) != 0) return errno;
        return S_ISDIR(status.st_mode) && status.st_ino == id ? 0 : ENOENT;
    }

    std::mutex mutex;
    std::unordered_map<uint64_t, Group> groups;  // ids handed out by Set
};

}  // namespace

Interface& Interface::Real() {
    static CgroupKtab real;
    return real;
}

Interface* Interface::sInstance = &Interface::Real();

std::string ReturnStatusToString(Status status) {
    if (status == kOutOfMemory) return "Out of memory";
    if (status <= kLargestErrno) {
        if (const char* text = ::strerrordesc_np(static_cast<int>(status))) return text;
    }
    char text[32];
    std::snprintf(text, sizeof text, "Unknown status 0x%x", static_cast<unsigned>(status));
    return text;
}

}  // namespace Pelinor::Ktab
