// What operators use: the command line, --check-config on good and broken trees, and on the
// running daemon reload on SIGHUP, the status file, the metrics textfile and `tessard status`.
#include <rapidjson/document.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

constexpr const char* kDescriptions = "/usr/lib/tolmar/tessard/plugins/config/";
constexpr const char* kStatusFile = "/run/tessard/status.json";

std::string Describe(const std::string& name, const std::string& frequency) {
    return R"({"path": ")" + name + R"(.sh", "frequency": ")" + frequency + R"("})";
}

// Whether the status file comes to show exactly these plugins (name -> category).
bool Schedules(const std::string& statusPath, const std::map<std::string, std::string>& plan) {
    return Eventually([&] {
        std::map<std::string, std::string> plugins;
        rapidjson::Document status;
        // The daemon logs that it listens before it first writes the file.
        if (!std::filesystem::exists(statusPath) ||
            !status.Parse(ReadFile(statusPath).c_str()).IsObject())
            return false;
        for (const auto& p : status["plugins"].GetArray())
            plugins[p["name"].GetString()] = p["category"].GetString();
        return plugins == plan;
    });
}

// Runs that only print and exit: each row's first text starts the output, the others are in it.
TEST(OperatorE2E, OptionsAndCheckConfigPrintAndExit) {
    const std::string usage =
        "Usage: tessard [-r REPORT_DIR] | --help | --version | --check-config | status [--json]\n";
    const std::string check = "--check-config", bin = TESSARD_BINARY;
    const std::string malformed = "<config><httpPort>1</config";
    // A disabled plugin's overrides name a plugin all the same.
    const std::string good =
        "<config>\n<httpPort>9996</httpPort>\n<pluginOverrides><a><frequency>Fastest</frequency>"
        "</a><b><enabled>no</enabled></b></pluginOverrides>\n<plugins><user>nobody</user></plugins>"
        "<access><writers>root, %root 0</writers><reports><cpu>nobody</cpu></reports></access>"
        "<http><loops>2</loops></http></config>\n";
    const std::string bad =
        "<config>\n<httpPort>99x</httpPort>\n<pluginOverides><a><enabled>no</enabled></a>"
        "</pluginOverides>\n<pluginOverrides><rpSizeMb>900</rpSizeMb>\n<a><enabled>maybe</enabled>"
        "</a><dsk><loglevel>info</loglevel><pidsMax>9</pidsMax></dsk></pluginOverrides>\n"
        "<access><writers>root nosuch %nosuch</writers></access>\n"
        "<plugins><user>nosuch</user></plugins><http><loops>99</loops></http></config>\n";
    const std::vector<std::string> goodOutput = {
        "Configuration ", "  a                       fast      300s      30s        40 MiB\n",
        "No problems.\n"};
    const std::vector<std::string> badOutput = {
        "Configuration ",
        "config.xml:2: httpPort: '99x' is not an integer: the default 9996 is used\n",
        "config.xml:3: pluginOverides/a/enabled: unknown key, ignored\n",
        "config.xml:4: pluginOverrides/rpSizeMb: '900' is outside 41 to 500: ignored\n",
        "config.xml:5: pluginOverrides/a/enabled: 'maybe' is not a boolean: ignored\n",
        "config.xml:5: pluginOverrides/dsk/loglevel: no plugin description names dsk\n",
        "config.xml:5: pluginOverrides/dsk/pidsMax: no plugin description names dsk\n",
        "config.xml:6: access/writers: 'root nosuch %nosuch' is not all known: user nosuch, "
        "group %nosuch left out\n",
        "config.xml:7: plugins/user: 'nosuch' is not a user: plugins run as nobody\n",
        "config.xml:7: http/loops: '99' is outside 1 to 64: ignored\n",
        "broken.json\n",
        "  a                       slow",
        "Problems found.\n"};
    struct Row {
        std::vector<std::string> args;
        int exitCode;
        std::vector<std::string> output;
        std::vector<std::string> env = {};
        // The configuration when not the generated one; "broken.json" when not empty.
        std::string config = "", description = "";
    } rows[] = {
        {{"-x"}, 1, {bin + ": invalid option -- 'x'\n" + usage}},
        {{"--bogus"}, 1, {bin + ": unrecognized option '--bogus'\n" + usage}},
        {{"--version"}, 0, {"tessard 1.0.0 (build 1)\n"}},
        {{"--help"}, 0, {usage + "\ntessard: host health daemon."}},
        {{"status", "--yaml"}, 1, {"Usage: tessard status [--json]\n"}},
        {{}, 1, {"Initializing Pelinor failed: TESSARD_TIME_SCALE"}, {"TESSARD_TIME_SCALE=0"}},
        {{}, 1, {"Initializing Pelinor failed: "}, {}, malformed},
        {{check}, 1, {"Configuration: Malformed configuration "}, {}, malformed},
        {{check}, 0, goodOutput, {}, good},
        {{check}, 1, badOutput, {}, bad, "{\"path\": "},
    };
    for (const Row& row : rows) {
        DaemonOptions options{.args = row.args, .env = row.env, .waitReady = false};
        if (!row.config.empty()) options.configXml = row.config;
        options.prepare = [&](const std::string& root) {
            WriteFile(root + kDescriptions + "a.json", Describe("a", "slow"));
            WriteFile(root + kDescriptions + "b.json", Describe("b", "slow"));
            if (!row.description.empty())
                WriteFile(root + kDescriptions + "broken.json", row.description);
        };
        DaemonProcess run(options);
        EXPECT_EQ(run.WaitExit(), row.exitCode) << row.output[0] << "\n" << run.Logs();
        EXPECT_EQ(run.Logs().find(row.output[0]), 0u) << run.Logs();
        for (const std::string& text : row.output)
            EXPECT_NE(run.Logs().find(text), std::string::npos) << text << "\n" << run.Logs();
    }
}

// Throwaway users for the writer policy: one in a group of its own, one outside it.
struct Users {
    Users() {
        Remove();
        ok = RunCommand("groupadd " + group + " && useradd -M -N -s /usr/sbin/nologin -G " + group +
                        " " + member + " && useradd -M -N -s /usr/sbin/nologin " + other)
                 .first == 0;
    }
    ~Users() { Remove(); }
    void Remove() {
        RunCommand("userdel " + member + "; userdel " + other + "; groupdel " + group);
    }
    // The HTTP status of a report posted by `user`.
    int Post(const std::string& user, uint16_t port, const std::string& name) {
        auto [code, status] =
            RunCommand("runuser -u " + user +
                       " -- curl -sg -o /dev/null -w '%{http_code}' -H "
                       "'Content-Type: application/json' --data '{\"by\":\"" +
                       user + "\"}' http://127.0.0.1:" + std::to_string(port) + "/r/" + name);
        return code == 0 ? std::stoi(status) : 0;
    }
    const std::string group = "tessard-tw", member = "tessard-t1", other = "tessard-t2";
    bool ok = false;
};

// On a running daemon, as root with throwaway users: only the configured users write, and a
// reload changes who may, what is scheduled and nothing else.
TEST(OperatorE2E, HupReloadsWithoutTouchingReportsAndOnlyConfiguredUsersWrite) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make throwaway users";
    Users users;
    ASSERT_TRUE(users.ok);
    TempDir metrics;
    DaemonOptions options{.port = FreePort()};
    const std::string config = "<config><httpPort>" + std::to_string(options.port) +
                               "</httpPort><metrics><textfileDir>" + metrics.Path() +
                               "</textfileDir></metrics>";
    options.configXml = config + "<pluginOverrides><colour>red</colour></pluginOverrides>" +
                        "<access><writers>root, %" + users.group + "</writers><reports><cpu>" +
                        users.other + "</cpu></reports></access></config>";
    // No pool: plugins are scheduled but not launched, and never in the host's pool.
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=/nonexistent"};
    options.prepare = [](const std::string& root) {
        WriteFile(root + kDescriptions + "a.json", Describe("a", "fast"));
        WriteFile(root + kDescriptions + "b.json", Describe("b", "slow"));
    };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    EXPECT_TRUE(daemon.HasLine("warning", "tessard",
                               "Unknown configuration key pluginOverrides/colour (" +
                                   daemon.ConfigPath() + ":1) is ignored"));
    const std::string statusPath = daemon.Root() + kStatusFile;
    ASSERT_TRUE(Schedules(statusPath, {{"a", "fast"}, {"b", "slow"}})) << ReadFile(statusPath);

    struct Row {
        std::string user, name;
        int status;
    } rows[] = {
        {"root", "mem", 200},        // listed by name
        {users.member, "mem", 200},  // a member of a listed group
        {users.other, "mem", 403},   // neither
        {users.other, "cpu", 200},   // listed for this name only
    };
    for (const Row& row : rows)
        EXPECT_EQ(users.Post(row.user, daemon.Port(), row.name), row.status)
            << row.user << " " << row.name;
    // A refusal says who was refused.
    const std::string uid = RunCommand("id -u " + users.other).second;
    EXPECT_TRUE(daemon.HasLine("warning", "TessardHandler",
                               "Report mem refused: user " + users.other + " (uid " +
                                   uid.substr(0, uid.size() - 1) + ") may not write it"));
    // The status names each newest report's writer.
    rapidjson::Document status;
    ASSERT_TRUE(Eventually([&] {
        status.Parse(ReadFile(statusPath).c_str());
        return status.IsObject() && status["reports"].Size() == 2 &&
               status["reports"][1]["answers"].HasMember("403");
    })) << ReadFile(statusPath);
    EXPECT_EQ(std::string(status["reports"][0]["writer"].GetString()) + " " +
                  status["reports"][1]["writer"].GetString(),
              users.other + " " + users.member);

    // A changed description and a new override take effect; without the access section,
    // everyone local may write.
    WriteFile(daemon.Root() + kDescriptions + "b.json", Describe("b", "fast"));
    WriteFile(
        daemon.ConfigPath(),
        config + "<pluginOverrides><a><enabled>false</enabled></a></pluginOverrides></config>");
    daemon.Signal(SIGHUP);
    EXPECT_TRUE(Schedules(statusPath, {{"b", "fast"}})) << ReadFile(statusPath) << daemon.Logs();
    ASSERT_TRUE(daemon.HasLine("info", "tessard", "Reloaded " + daemon.ConfigPath()));
    EXPECT_EQ(users.Post(users.other, daemon.Port(), "mem"), 200);
    // A configuration that does not load changes nothing.
    WriteFile(daemon.ConfigPath(), "<config><httpPort>");
    daemon.Signal(SIGHUP);
    EXPECT_TRUE(daemon.WaitForLog("Reload failed, nothing changed: Malformed configuration", 5s));
    WriteFile(daemon.ConfigPath(), config + "</config>");

    // Reloads under report load lose no report; the ignored signals change nothing.
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(PostStatus(daemon.Port(), "/load", "{\"i\":" + std::to_string(i) + "}"), 200);
    });
    for (int signal : {SIGUSR1, SIGUSR2, SIGPIPE}) daemon.Signal(signal);
    for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(20ms)) daemon.Signal(SIGHUP);
    poster.join();
    EXPECT_EQ(ReadFile(daemon.ReportDir() + "/load.json"), "{\"i\":99}");
    EXPECT_TRUE(Schedules(statusPath, {{"a", "fast"}, {"b", "fast"}})) << ReadFile(statusPath);

    // The status file, the textfile and the status command all show the reports.
    const std::string total = "tessard_reports_total{name=\"load\",code=\"200\"} 100\n";
    const std::string textfile = metrics / "tessard.prom";
    ASSERT_TRUE(Eventually([&] { return ReadFile(textfile).find(total) != std::string::npos; }))
        << ReadFile(textfile);
    // Where promtool is installed.
    EXPECT_EQ(
        RunCommand("! command -v promtool >/dev/null || promtool check metrics < " + textfile),
        std::pair(0, std::string()));

    const std::string statusCommand =
        "TESSARD_ROOT=" + daemon.Root() + " " + TESSARD_BINARY " status";
    auto [code, table] = RunCommand(statusCommand);
    EXPECT_TRUE(code == 0 && table.find("\nload ") != table.npos &&
                table.find("\nb ") != table.npos)
        << table;
    EXPECT_EQ(daemon.Terminate(), 0);
    EXPECT_NE(RunCommand(statusCommand).second.find("\nSTOPPED at "), std::string::npos);
}

}  // namespace
}  // namespace TessardTest
