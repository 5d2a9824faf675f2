// Plugin records: the description of one plugin while it is read, and the plugin
// built from it with the command line it is started with.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/accounts.h"
#include "platform/base/config.h"
#include "platform/base/logging.h"

namespace Tessard {

constexpr const char* kPluginConfigDir = "/usr/lib/tolmar/tessard/plugins/config/";
constexpr const char* kPluginBinDir = "/usr/lib/tolmar/tessard/plugins/bin/";
constexpr std::array<std::string_view, 3> kFrequencyNames = {"fast", "medium", "slow"};
constexpr std::array<std::string_view, 5> kLogLevelNames = {"debug", "info", "warning", "error",
                                                            "critical"};
constexpr int32_t kFastFrequency = 0;
// Processes one plugin run may have at once, where the kernel can cap them.
constexpr uint32_t kDefaultPidsMax = 256;

// The configuration file's plugin section: pluginOverrides/<plugin>/<setting> and two
// launcher-wide keys.
constexpr std::string_view kOverridesPrefix = "pluginOverrides/";
constexpr const char* kFastPeriodKey = "pluginOverrides/fast/timePeriodMin";
constexpr const char* kPoolSizeKey = "pluginOverrides/rpSizeMb";
// A fast period override must be above this many minutes.
constexpr int32_t kMinFastPeriodMin = 5;

// Who plugins run as: the configured user, else the package's system user, else nobody.
constexpr const char* kPluginUserKey = "plugins/user";
constexpr const char* kPackagePluginUser = "tessard-plugin";
constexpr const char* kFallbackPluginUser = "nobody";
// The fallback's ids where the host does not know it either.
constexpr uint32_t kNobodyId = 65534;

struct PluginUser {
    Pelinor::System::Account account;
    std::string problem;  // why it is not the user asked for; empty when it is
};
PluginUser ResolvePluginUser(const Pelinor::Service::Config& config);

// Process-wide plugin settings, fixed while the launcher is built (and again at a reload).
constexpr uint64_t kDefaultFastTimePeriodMin = 5;
constexpr int32_t kDefaultResourcePoolSizeMb = 40;
extern uint64_t fastTimePeriodMin;  // minutes
extern int32_t resourcePoolSizeMb;  // MB
extern const int32_t maxResourcePoolSizeMb;

// Takes a larger pool size, up to the maximum; false when refused.
bool SetResourcePoolSize(int32_t sizeMb);

struct PluginConfiguration {
    bool enabled = true;
    int32_t frequency = kFastFrequency;  // index into kFrequencyNames
    std::string logLevel;                // one of kLogLevelNames, or empty
    std::string name;                    // relative path up to its last "."
    std::string completePath;            // plugin binary directory + relative path
    uint32_t pidsMax = kDefaultPidsMax;
};

void SetPath(PluginConfiguration& configuration, const std::string& relativePath);
// The first of `names` that `text` begins with, ignoring case ("SLOWLY" is slow).
std::optional<size_t> MatchName(std::string_view text, std::span<const std::string_view> names);
// The frequency `text` begins with; anything else means fast.
void SetFrequency(PluginConfiguration& configuration, const std::string& text);
// The log level `text` begins with; anything else changes nothing.
void SetLogLevel(PluginConfiguration& configuration, const std::string& text);

class Plugin {
  public:
    explicit Plugin(const PluginConfiguration& configuration);
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // The null-terminated argument vector; entry 0 is the binary's path.
    char* const* GetArguments() const { return arguments.data(); }
    // Every argument followed by one blank, for log lines.
    std::string GetCommandLine() const;

    const bool enabled;
    const int32_t frequency;
    const std::string logLevel;
    const std::string name;
    const std::string completePath;
    const uint32_t pidsMax;

  private:
    std::vector<char*> arguments;  // heap C strings owned here, released with free()
    Pelinor::Ref<Pelinor::Service::Logger> logger;
};

}  // namespace Tessard
