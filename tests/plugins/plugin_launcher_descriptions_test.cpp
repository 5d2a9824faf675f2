#include <algorithm>

#include "tests/plugins/plugin_env.h"

namespace {

using Pelinor::Service::LogLevel;
using Tessard::Plugin;
using Tessard::PluginConfiguration;

class PluginDescriptionsTest : public TessardTest::PluginEnv {
  protected:
    std::vector<std::string> Names(const std::vector<std::shared_ptr<Plugin>>& plugins) {
        std::vector<std::string> names;
        for (const auto& p : plugins) names.push_back(p->name);
        std::sort(names.begin(), names.end());
        return names;
    }
    // Messages logged after `first`, in order, that mention `file`.
    std::vector<std::string> LinesAbout(const std::string& file) {
        std::vector<std::string> lines;
        for (const auto& m : log.Messages()) {
            if (m.find(file) != std::string::npos) lines.push_back(m);
        }
        return lines;
    }
};

TEST_F(PluginDescriptionsTest, SortsEveryDescriptionIntoItsCategoryOrSkipsIt) {
    Describe("disk", R"({"path": "checks/disk_usage.py", "frequency": "slow"})");
    Describe("mem.json", R"({"path": "mem.sh", "frequency": "Medium", "enabled": false})");
    Describe("load", R"({"path": "load.sh", "frequency": "hourly"})");
    Describe("nofreq", R"({"path": "a.sh"})");
    Describe("dup1", R"({"path": "x.y.z", "path": "ignored", "frequency": "SLOWLY"})");
    Describe("dup2", R"({"path": "x.y.z", "frequency": "fas"})");
    Describe("tools", R"({"path": "tools.d/check"})");
    Describe("noext", R"({"path": "noext", "frequency": "fast"})");
    Describe("number", R"({"path": 7})");
    Describe("absolute", R"({"path": "/usr/bin/x"})");
    Describe("empty", "");
    Describe("array", R"(["path"])");
    Describe("bom",
             "\xEF\xBB\xBF"
             R"({"path": "bom.sh"})");
    Describe("trailing", R"({"path": "t.sh"},)");
    Describe("nul", std::string(R"({"path": "cut\u0000rest.sh"})"));
    std::filesystem::create_directory(ConfigDir() + "subdir");

    auto launcher = Start();
    EXPECT_EQ(Names(launcher->FastCategory()->plugins),
              (std::vector<std::string>{"a", "cut", "load", "noext", "tools", "x.y"}));
    EXPECT_EQ(Names(launcher->SlowCategory()->plugins),
              (std::vector<std::string>{"checks/disk_usage", "mem", "x.y"}));
    for (const auto& p : launcher->SlowCategory()->plugins) {
        if (p->name == "mem") {
            EXPECT_EQ(p->frequency, 1) << "medium runs with the slow plugins";
        } else if (p->name == "checks/disk_usage") {
            EXPECT_EQ(p->completePath, BinDir() + "checks/disk_usage.py");
        }
    }

    std::string dir = ConfigDir();
    EXPECT_EQ(LinesAbout(dir + "number"),
              (std::vector<std::string>{
                  "Path in " + dir + "number is not formatted correctly",
                  "Invalid configuration. Plugin path not present in: " + dir + "number",
                  "Failed to parse " + dir + "number"}));
    for (std::string bad : {"empty", "array", "bom", "trailing"}) {
        EXPECT_EQ(LinesAbout(dir + bad),
                  (std::vector<std::string>{
                      dir + bad + " is not formatted with the path",
                      "Invalid configuration. Plugin path not present in: " + dir + bad,
                      "Failed to parse " + dir + bad}))
            << bad;
    }
    EXPECT_TRUE(
        log.Has(LogLevel::Error, "Invalid configuration. Plugin path is not relative: /usr/bin/x"));
    EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to parse " + dir + "subdir"));
    EXPECT_EQ(LinesAbout(dir + "nofreq"),
              (std::vector<std::string>{
                  dir + "nofreq is not formatted with the path",
                  "Did not find frequency in file : " + dir + "nofreq. Assuming Fast.",
                  "Successfully parsed " + dir + "nofreq"}));
    EXPECT_TRUE(log.Has(LogLevel::Trivia, "Complete plugin path: " + BinDir() + "a.sh"));
    EXPECT_TRUE(log.Has(LogLevel::Verbose, "Plugin added to slow queue: mem"));
    EXPECT_TRUE(log.Has(LogLevel::Verbose, "Plugin added to fast queue: load"));
    EXPECT_FALSE(log.Has("Did not find frequency in file : " + dir + "load. Assuming Fast."));
}

TEST_F(PluginDescriptionsTest, OverridesWinOverTheDescriptions) {
    Configure(R"(<httpPort>8080</httpPort><pluginOverrides>
        <fast><timePeriodMin>6</timePeriodMin></fast><rpSizeMb>128</rpSizeMb>
        <a><frequency>Fast</frequency><loglevel>Debug</loglevel></a>
        <b><frequency>sometimes</frequency><loglevel>verbose</loglevel></b>
        <c><enabled>false</enabled></c>
        <sub><check><loglevel>ERROR</loglevel><frequency>slow</frequency></check></sub>
      </pluginOverrides>)");
    Describe("a", R"({"path": "a.sh", "frequency": "slow"})");
    Describe("b", R"({"path": "b.sh", "frequency": "slow"})");
    Describe("c", R"({"path": "c.sh"})");
    Describe("sub", R"({"path": "sub/check.sh"})");
    auto launcher = Start();

    EXPECT_EQ(Tessard::fastTimePeriodMin, 6u);
    EXPECT_EQ(launcher->FastCategory()->period, 360u);
    EXPECT_TRUE(log.Has(LogLevel::Info, "Overriden time period = 6"));
    EXPECT_TRUE(log.Has(LogLevel::Info, "Overridden resource pool size = 128MB"));
    EXPECT_TRUE(log.Has(LogLevel::Info, "Override plugin configuration: a.frequency: Fast"));
    EXPECT_TRUE(log.Has(LogLevel::Info, "Override plugin configuration: b.loglevel: verbose"));
    EXPECT_TRUE(log.Has(LogLevel::Info, "Override plugin configuration: c.enabled: false"));
    EXPECT_TRUE(log.Has(LogLevel::Trivia, "Checking config: pluginOverrides/sub/check/loglevel"));
    EXPECT_TRUE(log.Has(LogLevel::Info, "Plugin disabled by configuration: c"));

    EXPECT_EQ(Names(launcher->FastCategory()->plugins), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(Names(launcher->SlowCategory()->plugins), (std::vector<std::string>{"sub/check"}));
    for (const auto& p : launcher->FastCategory()->plugins) {
        EXPECT_EQ(p->logLevel, p->name == "a" ? "debug" : "") << p->name;
    }
    EXPECT_EQ(launcher->SlowCategory()->plugins[0]->logLevel, "error");

    // The pool size grows once, within its limits.
    EXPECT_FALSE(Tessard::SetResourcePoolSize(128));
    EXPECT_FALSE(Tessard::SetResourcePoolSize(501));
    EXPECT_TRUE(Tessard::SetResourcePoolSize(500));
}

TEST_F(PluginDescriptionsTest, LauncherWideOverridesOutsideTheirLimitsAreRefused) {
    struct Case {
        std::string period, pool;
        uint64_t expectPeriod;
        int32_t expectPool;
        bool poolError;
    };
    for (const Case& c : std::vector<Case>{{"5", "40", 5, 40, true},
                                           {"-10", "41", 5, 41, false},
                                           {"7", "500", 7, 500, false},
                                           {"0", "501", 5, 40, true},
                                           {"abc", "-1", 5, 40, true}}) {
        Tessard::fastTimePeriodMin = 5;
        Tessard::resourcePoolSizeMb = 40;
        log.Clear();
        Configure("<pluginOverrides><fast><timePeriodMin>" + c.period +
                  "</timePeriodMin></fast><rpSizeMb>" + c.pool + "</rpSizeMb></pluginOverrides>");
        Start();
        EXPECT_EQ(Tessard::fastTimePeriodMin, c.expectPeriod) << c.period;
        EXPECT_EQ(Tessard::resourcePoolSizeMb, c.expectPool) << c.pool;
        EXPECT_EQ(log.Has(LogLevel::Error,
                          "Configured resource pool size: " + c.pool + "MB is outside limits"),
                  c.poolError)
            << c.pool;
        EXPECT_EQ(log.Has("Overriden time period = " + c.period), c.expectPeriod != 5);
    }
}

TEST_F(PluginDescriptionsTest, CommandLineCarriesPathPoolUrlAndLogLevel) {
    PluginConfiguration plain;
    Tessard::SetPath(plain, "a.sh");
    Plugin a(plain);
    std::vector<std::string> argv;
    for (auto arg = a.GetArguments(); *arg != nullptr; ++arg) argv.emplace_back(*arg);
    EXPECT_EQ(argv, (std::vector<std::string>{BinDir() + "a.sh", "++group=tessard-plugins,mem=40",
                                              "-u", "http://localhost:8080"}));
    EXPECT_EQ(a.GetCommandLine(),
              BinDir() + "a.sh ++group=tessard-plugins,mem=40 -u http://localhost:8080 ");

    Configure("<pluginOverrides><rpSizeMb>128</rpSizeMb></pluginOverrides>");
    Tessard::resourcePoolSizeMb = 128;
    PluginConfiguration verbose = plain;
    Tessard::SetLogLevel(verbose, "Debug");
    Tessard::SetLogLevel(verbose, "warn");  // no match: unchanged
    Plugin b(verbose);
    EXPECT_EQ(b.GetCommandLine(), BinDir() +
                                      "a.sh ++group=tessard-plugins,mem=128 -u "
                                      "http://localhost:9996 --loglevel=debug ");
    Plugin c(plain);
    EXPECT_EQ(log.Count("httpPort not present. Assuming default: 9996"), 2)
        << "every plugin built looks the port up";

    PluginConfiguration frequency;
    for (auto [text, expected] : std::vector<std::pair<std::string, int>>{
             {"Slow", 2}, {"SLOWLY", 2}, {"medium", 1}, {"fas", 0}, {"", 0}}) {
        frequency.frequency = 2;
        Tessard::SetFrequency(frequency, text);
        EXPECT_EQ(frequency.frequency, expected) << text;
    }
}

}  // namespace
