// Who may write which report names: the configuration's access section, checked against the
// user that the kernel says owns the client's socket.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/config.h"
#include "platform/base/logging.h"

namespace Tessard {

constexpr const char* kAccessSection = "access";
// Users and groups that may write every report name, and those of one name.
constexpr const char* kWritersKey = "access/writers";
constexpr std::string_view kReportWritersPrefix = "access/reports/";

// One list of writers: user names or numbers, and groups as "%name" or "%number", separated
// by blanks or commas.
struct Writers {
    std::vector<uint32_t> users;
    std::vector<uint32_t> groups;
};
// Parses a list; each entry the host does not know ("user bob", "group %ops") goes to `unknown`.
Writers ParseWriters(std::string_view text, std::vector<std::string>& unknown);

// "user alice (uid 1000)", or "an unidentified client" when the kernel could not say.
std::string DescribeWriter(std::optional<uint32_t> uid);

// Replaced whole at a reload while the event loops check requests against it.
class WriterPolicy {
  public:
    // Takes the access section of `config`; without one every local user may write every
    // name. The plugins' user may always write. Unknown users and groups are logged and left
    // out.
    void Load(const Pelinor::Service::Config& config, uint32_t pluginUid,
              const Pelinor::Ref<Pelinor::Service::Logger>& logger);
    // Whether an access section limits who may write.
    bool Restricted() const;
    bool Allows(std::optional<uint32_t> uid, const std::string& reportName) const;

  private:
    struct Rules;
    std::shared_ptr<const Rules> Current() const;

    // Read without a lock: a host without an access section pays nothing per request.
    std::atomic<bool> restricted{false};
    mutable std::mutex mutex;  // guards rules
    std::shared_ptr<const Rules> rules;
};

}  // namespace Tessard
