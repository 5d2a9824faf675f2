// What every fuzz target shares: a private root with empty plugin folders and an empty
// configuration, and log lines that go nowhere.
#pragma once

#include <stdlib.h>

#include <filesystem>

#include "platform/base/app.h"
#include "plugins/plugin.h"
#include "tests/support/temp_dir.h"

namespace TessardFuzz {

struct Environment : Pelinor::Service::LogSink {
    Environment() {
        Pelinor::Service::SetLogSink(this);
        ::setenv("TESSARD_ROOT", root.Path().c_str(), 1);
        std::filesystem::create_directories(root.Path() + Tessard::kPluginConfigDir);
        std::filesystem::create_directories(root.Path() + Tessard::kPluginBinDir);
        Pelinor::Service::GetApp().SetConfig(Pelinor::Service::Config::Parse("<config/>"));
    }
    void Write(Pelinor::Service::LogLevel, std::string_view, std::string_view) override {}

    TessardTest::TempDir root;
};

inline Environment& Setup() {
    static Environment environment;
    return environment;
}

}  // namespace TessardFuzz
