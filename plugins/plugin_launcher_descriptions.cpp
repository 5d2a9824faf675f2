// Plugin description files and the overrides of the configuration file.
#include <rapidjson/document.h>
#include <rapidjson/filereadstream.h>

#include <cstdio>
#include <type_traits>

#include "platform/base/app.h"
#include "platform/base/c_helpers.h"
#include "platform/base/scope_guard.h"
#include "platform/fs/files.h"
#include "plugins/plugin_launcher.h"

namespace Tessard {

using Pelinor::Ref;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

namespace {

constexpr size_t kReadBufferSize = 1024;

Ref<Pelinor::Service::Config> Configuration() {
    Ref<Pelinor::Service::Config> config;
    Pelinor::Service::GetApp().GetConfig(config);
    return config;
}

// Leaves `out` empty when the member is missing or not a string.
void GetStringMember(const rapidjson::Document& document, const char* member,
                     const std::string& path, std::string& out,
                     const Ref<Pelinor::Service::Logger>& logger) {
    out.clear();
    if (!document.IsObject() || !document.HasMember(member)) {
        Log(logger, LogLevel::Error, "%1 is not formatted with the path", path);
        return;
    }
    const auto& value = document[member];
    if (!value.IsString()) {
        Log(logger, LogLevel::Error, "Path in %1 is not formatted correctly", path);
        return;
    }
    out = value.GetString();  // up to the first NUL
}

// Reads pluginOverrides/<name>/<key> with the getter of the value's type.
template <typename T>
bool GetPluginOverride(const std::string& name, const std::string& key, T& value,
                       const Ref<Pelinor::Service::Logger>& logger) {
    std::string keyPath = std::string(kOverridesPrefix) + name + "/" + key;
    Log(logger, LogLevel::Trivia, "Checking config: %1", keyPath);
    const auto config = Configuration();
    bool found = false;
    if constexpr (std::is_same_v<T, bool>)
        found = config->GetBool(keyPath, value);
    else if constexpr (std::is_same_v<T, int32_t>)
        found = config->GetInt(keyPath, value);
    else
        found = config->GetString(keyPath, value);
    if (found)
        Log(logger, LogLevel::Info, "Override plugin configuration: %1.%2: %3", name, key, value);
    return found;
}

}  // namespace

void PluginLauncher::ReadLauncherOverrides() {
    auto config = Configuration();
    int32_t period = 0;
    if (config->GetInt(kFastPeriodKey, period) && period > kMinFastPeriodMin) {
        Log(logger, LogLevel::Info, "Overriden time period = %1", period);
        fastTimePeriodMin = static_cast<uint64_t>(period);
    }
    int32_t poolSize = 0;
    if (config->GetInt(kPoolSizeKey, poolSize)) {
        if (SetResourcePoolSize(poolSize)) {
            Log(logger, LogLevel::Info, "Overridden resource pool size = %1MB", resourcePoolSizeMb);
        } else {
            Log(logger, LogLevel::Error, "Configured resource pool size: %1MB is outside limits",
                poolSize);
        }
    }
}

void PluginLauncher::ApplyPluginOverrides(PluginConfiguration& configuration) {
    bool enabled = false;
    if (GetPluginOverride(configuration.name, "enabled", enabled, logger)) {
        configuration.enabled = enabled;
    }
    std::string text;
    if (GetPluginOverride(configuration.name, "frequency", text, logger)) {
        SetFrequency(configuration, text);
    }
    if (GetPluginOverride(configuration.name, "loglevel", text, logger)) {
        SetLogLevel(configuration, text);
    }
    int32_t pidsMax = 0;
    if (GetPluginOverride(configuration.name, "pidsMax", pidsMax, logger)) {
        if (pidsMax > 0) {
            configuration.pidsMax = static_cast<uint32_t>(pidsMax);
        } else {
            Log(logger, LogLevel::Error, "Plugin %1: pidsMax must be positive, not %2",
                configuration.name, pidsMax);
        }
    }
}

void PluginLauncher::LoadPluginConfigurations() {
    auto directory = Pelinor::System::SystemFactory::sInstance->CreateFile(
        Pelinor::System::RootedPath(kPluginConfigDir));
    for (const auto& entry : directory->ListFiles()) {
        const std::string& path = entry->GetPath();
        if (std::string problem = Pelinor::System::TamperProblem(path, directory->GetPath());
            !problem.empty()) {
            Log(logger, LogLevel::Error, "Plugin description refused: %1", problem);
            continue;
        }
        PluginConfiguration configuration;
        if (!ReadPluginConfiguration(path, configuration)) {
            Log(logger, LogLevel::Error, "Failed to parse %1", path);
            continue;
        }
        Log(logger, LogLevel::Trivia, "Successfully parsed %1", path);
        if (!configuration.enabled) {
            Log(logger, LogLevel::Info, "Plugin disabled by configuration: %1", configuration.name);
            disabled.insert(configuration.name);
            continue;
        }
        auto plugin = std::make_shared<Plugin>(configuration);
        if (configuration.frequency == kFastFrequency) {
            fastCategory->plugins.push_back(std::move(plugin));
            Log(logger, LogLevel::Verbose, "Plugin added to fast queue: %1", configuration.name);
        } else {
            slowCategory->plugins.push_back(std::move(plugin));
            Log(logger, LogLevel::Verbose, "Plugin added to slow queue: %1", configuration.name);
        }
    }
}

bool PluginLauncher::ReadPluginConfiguration(const std::string& path,
                                             PluginConfiguration& configuration) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        Log(logger, LogLevel::Error, "Failed to open %1", path);
        return false;
    }
    Pelinor::ScopeGuard closeFile([file] { std::fclose(file); });

    rapidjson::Document document;
    try {
        char buffer[kReadBufferSize];
        rapidjson::FileReadStream stream(file, buffer, sizeof buffer);
        document.ParseStream(stream);
    } catch (const std::exception& e) {
        Log(logger, LogLevel::Error, "Invalid JSON in file : %1, Exception : %2", path, e.what());
        return false;
    }

    std::string relativePath;
    GetStringMember(document, "path", path, relativePath, logger);
    if (relativePath.empty()) {
        Log(logger, LogLevel::Error, "Invalid configuration. Plugin path not present in: %1", path);
        return false;
    }
    if (File_IsFullPath(relativePath)) {
        Log(logger, LogLevel::Error, "Invalid configuration. Plugin path is not relative: %1",
            relativePath);
        return false;
    }
    std::string frequency;
    GetStringMember(document, "frequency", path, frequency, logger);
    if (frequency.empty()) {
        Log(logger, LogLevel::Info, "Did not find frequency in file : %1. Assuming Fast.", path);
    }
    SetPath(configuration, relativePath);
    SetFrequency(configuration, frequency);
    Log(logger, LogLevel::Trivia, "Complete plugin path: %1", configuration.completePath);
    ApplyPluginOverrides(configuration);
    return true;
}

}  // namespace Tessard
