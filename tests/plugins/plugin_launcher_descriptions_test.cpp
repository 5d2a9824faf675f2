#include <algorithm>

#include "tests/plugins/plugin_env.h"

namespace {

using Pelinor::Service::LogLevel;
using Tessard::Plugin;
using Tessard::PluginConfiguration;

class PluginDescriptionsTest : public TessardTest::PluginEnv {
  protected:
    // "name:category" of every scheduled plugin, sorted.
    std::vector<std::string> Scheduled(const Tessard::PluginLauncher& launcher) {
        std::vector<std::string> names;
        for (const auto& p : launcher.Plans()) names.push_back(p.name + ":" + p.category);
        std::sort(names.begin(), names.end());
        return names;
    }
    // The last argument each plugin was launched with, by plugin file.
    std::map<std::string, std::string> LastArguments() {
        std::map<std::string, std::string> last;
        for (const auto& l : processes.launches)
            last[l.argv[0].substr(BinDir().size())] = l.argv.back();
        return last;
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
    auto scheduled = Scheduled(*launcher);
    // "medium" runs with the slow plugins; a description's own "enabled" does not count.
    EXPECT_EQ(scheduled, (std::vector<std::string>{"a:fast", "checks/disk_usage:slow", "cut:fast",
                                                   "load:fast", "mem:slow", "noext:fast",
                                                   "tools:fast", "x.y:fast", "x.y:slow"}));
    for (std::string bad : {"number", "empty", "array", "bom", "trailing", "subdir"})
        EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to parse " + ConfigDir() + bad)) << bad;
    EXPECT_TRUE(
        log.Has(LogLevel::Error, "Invalid configuration. Plugin path is not relative: /usr/bin/x"));
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
    EXPECT_EQ(Scheduled(*launcher),
              (std::vector<std::string>{"a:fast", "b:fast", "sub/check:slow"}));
    EXPECT_EQ(launcher->Plans().at(0).period.count(), 360);
    EXPECT_EQ(launcher->Plans().at(0).memoryLimitMb, 128u);
    scheduler.RunUntil(100);
    EXPECT_EQ(LastArguments(),
              (std::map<std::string, std::string>{{"a.sh", "--loglevel=debug"},
                                                  {"b.sh", "http://localhost:8080"},
                                                  {"sub/check.sh", "--loglevel=error"}}));

    // The pool size grows once, within its limits.
    EXPECT_FALSE(Tessard::SetResourcePoolSize(128));
    EXPECT_FALSE(Tessard::SetResourcePoolSize(501));
    EXPECT_TRUE(Tessard::SetResourcePoolSize(500));
}

TEST_F(PluginDescriptionsTest, LauncherWideOverridesOutsideTheirLimitsAreRefused) {
    Describe("a", R"({"path": "a.sh"})");
    struct Case {
        std::string period, pool;
        int64_t expectPeriodMin;
        uint32_t expectPool;
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
        auto plan = Start()->Plans().at(0);
        EXPECT_EQ(plan.period.count(), c.expectPeriodMin * 60) << c.period;
        EXPECT_EQ(plan.memoryLimitMb, c.expectPool) << c.pool;
        EXPECT_EQ(log.Has(LogLevel::Error,
                          "Configured resource pool size: " + c.pool + "MB is outside limits"),
                  c.poolError)
            << c.pool;
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
