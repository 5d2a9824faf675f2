// Plugin description files, as the launcher reads each one.
#include <cstddef>
#include <cstdint>
#include <string>

#include "plugins/plugin_launcher.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static auto& environment = TessardFuzz::Setup();
    static auto launcher = [] {
        auto made = std::make_shared<Tessard::PluginLauncher>();
        made->Load();  // its logger and categories, from an empty folder
        return made;
    }();
    const std::string path = environment.root / "description.json";
    TessardTest::WriteFile(path, std::string(reinterpret_cast<const char*>(data), size));
    Tessard::PluginConfiguration configuration;
    // What is accepted makes a plugin.
    if (launcher->ReadPluginConfiguration(path, configuration)) Tessard::Plugin{configuration};
    return 0;
}
