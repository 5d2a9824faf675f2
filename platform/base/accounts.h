// Users and groups of the host, as its user database (NSS) knows them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Pelinor::System {

struct Account {
    uint32_t uid = 0;
    uint32_t gid = 0;  // primary group
    std::string name;
};

// A user by name or number; none when no user has that name. A number is a user whether or
// not the database knows it (its group is then the same number).
std::optional<Account> FindUser(std::string_view nameOrNumber);
// A group id by name or number; a number is taken as it is.
std::optional<uint32_t> FindGroup(std::string_view nameOrNumber);
// The user's groups: the primary one and those that list the user as a member. Empty for a
// uid without an account.
std::vector<uint32_t> GroupsOf(uint32_t uid);
// The user's name, or the number itself when the uid has no account.
std::string UserName(uint32_t uid);
// The daemon's own effective user.
uint32_t OwnUid();

}  // namespace Pelinor::System
