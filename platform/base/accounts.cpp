#include "platform/base/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/format.h"

namespace Pelinor::System {

namespace {

// Room for one entry of the user database; grown when an entry does not fit.
constexpr size_t kEntryBuffer = 1024;
constexpr size_t kLargestEntryBuffer = 1 << 20;
// Supplementary groups asked for at first; getgrouplist says when there are more.
constexpr int kFirstGroupCount = 32;

// Calls the reentrant lookup `get` with a buffer that grows while the entry does not fit.
template <typename Entry, typename Get>
bool Lookup(Entry& entry, std::vector<char>& buffer, Get get) {
    Entry* found = nullptr;
    for (buffer.resize(kEntryBuffer);; buffer.resize(buffer.size() * 2)) {
        int error = get(&entry, buffer.data(), buffer.size(), &found);
        if (error != ERANGE || buffer.size() >= kLargestEntryBuffer) return error == 0 && found;
    }
}

bool PasswdOf(uint32_t uid, passwd& entry, std::vector<char>& buffer) {
    return Lookup(entry, buffer, [&](passwd* out, char* data, size_t size, passwd** result) {
        return ::getpwuid_r(uid, out, data, size, result);
    });
}

}  // namespace

std::optional<Account> FindUser(std::string_view nameOrNumber) {
    passwd entry{};
    std::vector<char> buffer;
    uint32_t uid = 0;
    bool byNumber = ParseWhole(nameOrNumber, uid);
    std::string name(nameOrNumber);
    bool found = byNumber ? PasswdOf(uid, entry, buffer)
                          : Lookup(entry, buffer,
                                   [&](passwd* out, char* data, size_t size, passwd** result) {
                                       return ::getpwnam_r(name.c_str(), out, data, size, result);
                                   });
    if (found) return Account{entry.pw_uid, entry.pw_gid, entry.pw_name};
    // A number is a user whether or not the database names it; its group is unknown.
    if (byNumber) return Account{uid, uid, name};
    return std::nullopt;
}

std::optional<uint32_t> FindGroup(std::string_view nameOrNumber) {
    uint32_t gid = 0;
    if (ParseWhole(nameOrNumber, gid)) return gid;
    group entry{};
    std::vector<char> buffer;
    std::string name(nameOrNumber);
    if (!Lookup(entry, buffer, [&](group* out, char* data, size_t size, group** result) {
            return ::getgrnam_r(name.c_str(), out, data, size, result);
        }))
        return std::nullopt;
    return entry.gr_gid;
}

std::vector<uint32_t> GroupsOf(uint32_t uid) {
    passwd entry{};
    std::vector<char> buffer;
    if (!PasswdOf(uid, entry, buffer)) return {};
    std::vector<gid_t> groups(kFirstGroupCount);
    int count = static_cast<int>(groups.size());
    while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count) > groups.size() ? static_cast<size_t>(count)
                                                                 : groups.size() * 2);
        count = static_cast<int>(groups.size());
    }
    return {groups.begin(), groups.begin() + count};
}

std::string UserName(uint32_t uid) {
    return FindUser(std::to_string(uid))->name;
}

uint32_t OwnUid() {
    return ::geteuid();
}

}  // namespace Pelinor::System
