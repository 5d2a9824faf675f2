// The configuration file with its overrides and its access section, as start-up and a reload
// read it, and as --check-config judges it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "daemon/config_check.h"
#include "http/writer_policy.h"
#include "platform/base/exceptions.h"
#include "plugins/plugin_launcher.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TessardFuzz::Setup();
    Pelinor::Ref<Pelinor::Service::Config> config;
    try {
        config =
            Pelinor::Service::Config::Parse(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const Pelinor::Exception&) {
        return 0;  // refused whole, as start-up refuses it
    }
    Pelinor::Service::GetApp().SetConfig(config);
    Tessard::UnknownKeys(*config);
    Tessard::CheckConfig(*config);
    Pelinor::Service::ApplyLogLevel(*config);
    Tessard::WriterPolicy writers;
    writers.Load(*config, Tessard::ResolvePluginUser(*config).account.uid,
                 Pelinor::Service::Logger::sDefaultLogger);
    writers.Allows(0, "cpu");
    Tessard::PluginLauncher launcher;
    launcher.Load();  // the overrides, and the descriptions of an empty folder
    for (const auto& entry : config->Entries()) {
        if (!entry.key.starts_with(Tessard::kOverridesPrefix)) continue;
        size_t start = Tessard::kOverridesPrefix.size(), end = entry.key.rfind('/');
        Tessard::PluginConfiguration plugin;
        Tessard::SetPath(plugin, entry.key.substr(start, end - start) + ".sh");
        launcher.ApplyPluginOverrides(plugin);
    }
    return 0;
}
