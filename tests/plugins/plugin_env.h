// A plugin installation in a temporary root, with the configuration file loaded and
// the platform seams replaced by fakes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/base/app.h"
#include "plugins/plugin_launcher.h"
#include "tests/support/log_capture.h"
#include "tests/support/plugin_fakes.h"
#include "tests/support/temp_dir.h"

namespace TessardTest {

class PluginEnv : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TESSARD_ROOT", root.Path().c_str(), 1);
        std::filesystem::create_directories(ConfigDir());
        std::filesystem::create_directories(root.Path() + Tessard::kPluginBinDir);
        Tessard::fastTimePeriodMin = 5;
        Tessard::resourcePoolSizeMb = 40;
        Configure("<httpPort>8080</httpPort>");
        processes.clock = &scheduler;
    }
    void TearDown() override { ::unsetenv("TESSARD_ROOT"); }

    // Loads a configuration file holding `xml` inside <config>.
    void Configure(const std::string& xml) {
        WriteFile(root / "config.xml", "<config>" + xml + "</config>");
        Pelinor::Service::InitApp(root / "config.xml");
    }
    std::string ConfigDir() const { return root.Path() + Tessard::kPluginConfigDir; }
    std::string BinDir() const { return root.Path() + Tessard::kPluginBinDir; }
    // Writes a description file.
    void Describe(const std::string& file, const std::string& json) {
        WriteFile(ConfigDir() + file, json);
    }
    void DescribePlugins(int count, const std::string& frequency) {
        for (int i = 0; i < count; ++i) {
            Describe(frequency + std::to_string(i),
                     R"({"path": ")" + frequency + std::to_string(i) + R"(.sh", "frequency": ")" +
                         frequency + R"("})");
        }
    }
    std::shared_ptr<Tessard::PluginLauncher> Start() {
        auto launcher = std::make_shared<Tessard::PluginLauncher>();
        launcher->Init();
        return launcher;
    }

    TempDir root;
    LogCapture log;
    ManualScheduler scheduler;
    FakeKtab ktab;
    FakeProcessLauncher processes;
};

}  // namespace TessardTest
