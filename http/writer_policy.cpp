#include "http/writer_policy.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "platform/base/accounts.h"

namespace Tessard {

using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

namespace {

constexpr std::string_view kSeparators = " \t\r\n,";
constexpr char kGroupMark = '%';
// Users whose groups are remembered; beyond that the user database is asked each time.
constexpr size_t kMaxRememberedUsers = 4096;

bool Contains(const std::vector<uint32_t>& ids, uint32_t id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

}  // namespace

Writers ParseWriters(std::string_view text, std::vector<std::string>& unknown) {
    Writers writers;
    for (size_t start = text.find_first_not_of(kSeparators); start != std::string_view::npos;
         start = text.find_first_not_of(kSeparators, start)) {
        size_t end = std::min(text.find_first_of(kSeparators, start), text.size());
        std::string_view entry = text.substr(start, end - start);
        start = end;
        if (entry.front() == kGroupMark) {
            if (auto gid = Pelinor::System::FindGroup(entry.substr(1))) {
                writers.groups.push_back(*gid);
            } else {
                unknown.push_back("group " + std::string(entry));
            }
        } else if (auto account = Pelinor::System::FindUser(entry)) {
            writers.users.push_back(account->uid);
        } else {
            unknown.push_back("user " + std::string(entry));
        }
    }
    return writers;
}

std::string DescribeWriter(std::optional<uint32_t> uid) {
    if (!uid) return "an unidentified client";
    return "user " + Pelinor::System::UserName(*uid) + " (uid " + std::to_string(*uid) + ")";
}

struct WriterPolicy::Rules {
    bool restricted = false;
    uint32_t pluginUid = 0;
    Writers everyName;
    std::unordered_map<std::string, Writers> byName;

    bool Lists(const Writers& writers, uint32_t uid) const {
        if (Contains(writers.users, uid)) return true;
        if (writers.groups.empty()) return false;
        const std::vector<uint32_t> groups = GroupsOf(uid);
        return std::any_of(groups.begin(), groups.end(),
                           [&](uint32_t gid) { return Contains(writers.groups, gid); });
    }

    // The user database is asked once per user and policy.
    std::vector<uint32_t> GroupsOf(uint32_t uid) const {
        {
            std::lock_guard lock(mutex);
            if (auto found = groupsOf.find(uid); found != groupsOf.end()) return found->second;
        }
        std::vector<uint32_t> groups = Pelinor::System::GroupsOf(uid);
        std::lock_guard lock(mutex);
        if (groupsOf.size() < kMaxRememberedUsers) groupsOf.emplace(uid, groups);
        return groups;
    }

    mutable std::mutex mutex;  // guards groupsOf
    mutable std::unordered_map<uint32_t, std::vector<uint32_t>> groupsOf;
};

void WriterPolicy::Load(const Pelinor::Service::Config& config, uint32_t pluginUid,
                        const Pelinor::Ref<Pelinor::Service::Logger>& logger) {
    auto fresh = std::make_shared<Rules>();
    fresh->pluginUid = pluginUid;
    std::string section;
    fresh->restricted = config.GetString(kAccessSection, section);
    for (const auto& entry : config.Entries()) {
        Writers* writers = nullptr;
        if (entry.key == kWritersKey) {
            writers = &fresh->everyName;
        } else if (entry.key.starts_with(kReportWritersPrefix)) {
            writers = &fresh->byName[entry.key.substr(kReportWritersPrefix.size())];
        } else {
            continue;
        }
        std::vector<std::string> unknown;
        *writers = ParseWriters(entry.value, unknown);
        for (const std::string& name : unknown) {
            Log(logger, LogLevel::Warning, "Configuration key %1 names unknown %2 (%3): left out",
                entry.key, name, config.Where(entry));
        }
    }
    std::lock_guard lock(mutex);
    restricted.store(fresh->restricted, std::memory_order_relaxed);
    rules = std::move(fresh);
}

std::shared_ptr<const WriterPolicy::Rules> WriterPolicy::Current() const {
    std::lock_guard lock(mutex);
    return rules;
}

bool WriterPolicy::Restricted() const {
    return restricted.load(std::memory_order_relaxed);
}

bool WriterPolicy::Allows(std::optional<uint32_t> uid, const std::string& reportName) const {
    if (!Restricted()) return true;
    auto current = Current();
    if (!current->restricted) return true;  // loaded since
    if (!uid) return false;
    if (*uid == current->pluginUid || current->Lists(current->everyName, *uid)) return true;
    auto named = current->byName.find(reportName);
    return named != current->byName.end() && current->Lists(named->second, *uid);
}

}  // namespace Tessard
