#include "plugins/plugin.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "http/endpoint.h"
#include "platform/base/app.h"
#include "platform/base/c_helpers.h"

namespace Tessard {

using Pelinor::Service::Logger;

uint64_t fastTimePeriodMin = kDefaultFastTimePeriodMin;
int32_t resourcePoolSizeMb = kDefaultResourcePoolSizeMb;
const int32_t maxResourcePoolSizeMb = 500;

namespace {

constexpr const char* kGroupArgument = "++group=tessard-plugins,mem=";
constexpr const char* kUrlOption = "-u";
constexpr const char* kLogLevelOption = "loglevel";

}  // namespace

std::optional<size_t> MatchName(std::string_view text, std::span<const std::string_view> names) {
    for (size_t i = 0; i < names.size(); ++i) {
        if (text.size() >= names[i].size() &&
            std::equal(names[i].begin(), names[i].end(), text.begin(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) ==
                       std::tolower(static_cast<unsigned char>(b));
            }))
            return i;
    }
    return std::nullopt;
}

PluginUser ResolvePluginUser(const Pelinor::Service::Config& config) {
    if (uint32_t own = Pelinor::System::OwnUid(); own != 0) {
        return {*Pelinor::System::FindUser(std::to_string(own)), "the daemon does not run as root"};
    }
    std::string wanted;
    bool configured = config.GetString(kPluginUserKey, wanted);
    if (!configured) wanted = kPackagePluginUser;
    if (auto account = Pelinor::System::FindUser(wanted)) return {*account, ""};
    std::string problem = configured ? "the configured user " + wanted + " does not exist"
                                     : "there is no user " + wanted;
    auto fallback =
        Pelinor::System::FindUser(kFallbackPluginUser)
            .value_or(Pelinor::System::Account{kNobodyId, kNobodyId, kFallbackPluginUser});
    return {fallback, problem};
}

bool SetResourcePoolSize(int32_t sizeMb) {
    if (resourcePoolSizeMb >= sizeMb || sizeMb > maxResourcePoolSizeMb) return false;
    resourcePoolSizeMb = sizeMb;
    return true;
}

void SetPath(PluginConfiguration& configuration, const std::string& relativePath) {
    configuration.name = relativePath.substr(0, relativePath.rfind('.'));
    configuration.completePath = Pelinor::System::RootedPath(kPluginBinDir) + relativePath;
}

void SetFrequency(PluginConfiguration& configuration, const std::string& text) {
    configuration.frequency =
        static_cast<int32_t>(MatchName(text, kFrequencyNames).value_or(kFastFrequency));
}

void SetLogLevel(PluginConfiguration& configuration, const std::string& text) {
    if (auto level = MatchName(text, kLogLevelNames))
        configuration.logLevel = kLogLevelNames[*level];
}

Plugin::Plugin(const PluginConfiguration& configuration)
    : enabled(configuration.enabled),
      frequency(configuration.frequency),
      logLevel(configuration.logLevel),
      name(configuration.name),
      completePath(configuration.completePath),
      pidsMax(configuration.pidsMax),
      logger(Logger::CreateLogger(Logger::sDefaultLogger, "Plugin")) {
    Pelinor::Ref<Pelinor::Service::Config> config;
    Pelinor::Service::GetApp().GetConfig(config);
    int32_t port = GetHttpPort(config, logger);
    std::string url = localBaseUrl + ":" + std::to_string(port);

    arguments.push_back(UtilSafeStrdup0(completePath.c_str()));
    arguments.push_back(Str_SafeAsprintf("%s%d", kGroupArgument, resourcePoolSizeMb));
    arguments.push_back(UtilSafeStrdup0(kUrlOption));
    arguments.push_back(UtilSafeStrdup0(url.c_str()));
    if (!logLevel.empty()) {
        arguments.push_back(Str_SafeAsprintf("--%s=%s", kLogLevelOption, logLevel.c_str()));
    }
    arguments.push_back(nullptr);
}

Plugin::~Plugin() {
    for (char* argument : arguments) std::free(argument);
}

std::string Plugin::GetCommandLine() const {
    std::string line;
    for (size_t i = 0; i + 1 < arguments.size(); ++i) {
        line += arguments[i];
        line += ' ';
    }
    return line;
}

}  // namespace Tessard
