// The daemon as installed: what `cmake --install` lays out, the installed binary started from
// there with its example plugins, and what systemd makes of the unit; the Debian package.
#include <rapidjson/document.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <filesystem>
#include <regex>

#include "tests/support/daemon_process.h"
#include "tests/support/test_cgroup.h"

namespace TessardTest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kConfig = "/etc/tolmar/cpservices/tessard/config.xml";
constexpr const char* kPlugins = "/usr/lib/tolmar/tessard/plugins";

// Installs the build into `destdir` as the Debian package lays it out (prefix /usr).
void Install(const std::string& destdir) {
    std::string command = "DESTDIR=" + destdir + " " + TESSARD_CMAKE + " --install " +
                          TESSARD_BUILD_DIR + " --prefix /usr >/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(PackagingE2E, InstalledDaemonTakesReportsAndRunsTheExamplePlugins) {
    TempDir dest;
    ASSERT_NO_FATAL_FAILURE(Install(dest.Path()));
    // Plugins launch where this host lets the test make a memory cgroup.
    TestCgroup cgroup(dest.Path() + "/usr/sbin/tessard-pool");
    DaemonOptions options{.port = FreePort()};
    // The installed sample configuration as it ships, on a port of the test's own.
    options.configXml = std::regex_replace(ReadFile(dest.Path() + kConfig), std::regex(">9996<"),
                                           ">" + std::to_string(options.port) + "<");
    // Without a group of the test's own, no pool at all: never the host's.
    std::string cgroupRoot = cgroup.SkipReason().empty() ? cgroup.Root() : dest / "no-cgroup";
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=" + cgroupRoot};
    options.prepare = [&](const std::string& root) {
        fs::copy(dest.Path() + kPlugins, root + kPlugins,
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        // The only plugin: no other batch stops it within a second, and none writes a report
        // that the runs below write too.
        for (const char* other : {"load", "disk", "reportdir"})
            fs::remove(root + kPlugins + "/config/" + other + ".json");
    };
    DaemonProcess daemon(options, dest.Path() + "/usr/sbin/tessard");
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    EXPECT_EQ(daemon.Logs().find("Configuration"), std::string::npos) << daemon.Logs();
    if (cgroup.SkipReason().empty()) {
        // The first fast batch fires a second after start-up.
        ASSERT_TRUE(
            Eventually([&] { return fs::exists(daemon.ReportDir() + "/memory.json"); }, 15s))
            << daemon.Logs();
        EXPECT_NE(ReadFile(daemon.ReportDir() + "/memory.json").find(R"("plugin")"),
                  std::string::npos);
    } else {
        std::printf("example plugin launch not checked: %s\n", cgroup.SkipReason().c_str());
    }

    // Each installed example plugin, run as the daemon runs it (its arguments, an empty
    // environment), stores a valid report.
    const std::string dir = daemon.ReportDir() + "/", odd = "/nowhere/a\"b\\c\nd\te";
    auto RunPlugin = [&](const std::string& name, uint16_t port, const std::string& options) {
        return RunCommand("env -i " + dest.Path() + kPlugins + "/bin/" + name +
                          ".sh ++group=tessard-plugins,mem=40 -u http://localhost:" +
                          std::to_string(port) + " " + options);
    };
    struct Case {
        // The status is a pattern: the host's state decides the healthy reports.
        std::string name, option, status;
        std::vector<const char*> keys;
        std::string reportDir = "";  // as the report names it, when not empty
    };
    const std::string healthy = "ok|warning|critical";
    const Case cases[] = {
        {"disk", "", healthy, {"mounts", "thresholds"}},
        {"memory", "", healthy, {"total_kib", "used_percent", "swap_used_percent"}},
        {"load", "", healthy, {"load1", "cpus", "pressure"}},
        // Its parent is this test, not the daemon, so only the option names the directory.
        {"reportdir", "", "unknown", {"reason"}},
        {"reportdir", "'--report-dir=" + odd + "'", "critical", {"problems"}, odd},
        {"reportdir",
         "--report-dir=" + daemon.ReportDir(),
         healthy,
         {"newest_report_age_s", "writable", "report_names", "dangling_links"},
         daemon.ReportDir()},
    };
    rapidjson::Document doc;
    auto text = [&](const char* key) -> std::string {
        return doc.HasMember(key) && doc[key].IsString() ? doc[key].GetString() : "";
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " " + c.option);
        auto [code, log] = RunPlugin(c.name, daemon.Port(), "--loglevel=debug " + c.option);
        ASSERT_EQ(0, code) << log;
        std::string body = ReadFile(dir + c.name + ".json");
        // Stored exactly as logged at debug level.
        EXPECT_NE(log.find(c.name + ": debug: report: " + body + "\n"), std::string::npos) << log;
        ASSERT_TRUE(!doc.Parse(body.c_str()).HasParseError() && doc.IsObject()) << body;
        EXPECT_TRUE(
            c.name == text("plugin") && std::regex_match(text("status"), std::regex(c.status)) &&
            std::regex_match(text("timestamp"), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
            << body;
        EXPECT_TRUE(std::ranges::all_of(c.keys, [&](auto key) { return doc.HasMember(key); }))
            << body;
        EXPECT_TRUE(c.reportDir.empty() || c.reportDir == text("report_dir")) << body;
    }
    // disk, memory, load and reportdir
    EXPECT_TRUE(doc["writable"].IsTrue() && doc["report_names"].GetInt() == 4 &&
                doc["dangling_links"].GetInt() == 0);

    // A bound socket that does not listen refuses the POST: one line says so.
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket refuser(io, {boost::asio::ip::address_v4::loopback(), 0});
    auto [code, log] = RunPlugin("memory", refuser.local_endpoint().port(), "");
    EXPECT_NE(0, code);
    EXPECT_EQ(1, std::ranges::count(log, '\n')) << log;
    EXPECT_EQ(daemon.Terminate(), 0);

    if (RunCommand("command -v systemd-analyze").first == 0) {
        // The reload command is the host's; this test's tree has only tessard's files.
        fs::create_directories(dest / "bin");
        fs::copy_file(fs::canonical("/bin/kill"), dest / "bin/kill");
        // Not the units it would start after: this test's tree has only tessard's.
        EXPECT_EQ(RunCommand("systemd-analyze verify --man=no --recursive-errors=no --root=" +
                             dest.Path() + " /usr/lib/systemd/system/tessard.service"),
                  std::make_pair(0, std::string()));
    }

    // An operator's configuration survives a reinstall.
    WriteFile(dest.Path() + kConfig, "<config/>\n");
    ASSERT_NO_FATAL_FAILURE(Install(dest.Path()));
    EXPECT_EQ(ReadFile(dest.Path() + kConfig), "<config/>\n");
}

// Built as scripts/package.sh builds it (debhelper, in a copy of the sources); lintian finds
// no error and no warning in it.
TEST(PackagingE2E, DebianPackageHoldsTheInstallationAndIsLintianClean) {
    if (RunCommand("which dpkg-buildpackage dh lintian").first != 0)
        GTEST_SKIP() << "dpkg-buildpackage, dh or lintian missing";
    TempDir out;
    auto [code, output] =
        RunCommand("OUT_DIR=" + out.Path() + " " + TESSARD_SOURCE_DIR + "/scripts/package.sh");
    ASSERT_EQ(code, 0) << output;
    std::string deb = out / "tessard_1.0.0_amd64.deb";

    std::string contents = RunCommand("dpkg-deb --contents " + deb).second;
    for (const std::string file :
         {"/usr/sbin/tessard", "/usr/sbin/tessard-pool", kConfig,
          "/lib/systemd/system/tessard.service", "/usr/lib/tolmar/tessard/plugins/bin/memory.sh",
          "/usr/share/man/man8/tessard.8.gz", "/usr/share/man/man8/tessard-pool.8.gz",
          "/usr/share/doc/tessard/examples/tessard-alerts.yml", "/usr/lib/sysusers.d/tessard.conf"})
        EXPECT_NE(contents.find(" ." + file + "\n"), std::string::npos) << file << "\n" << contents;
    EXPECT_EQ(RunCommand("dpkg-deb --info " + deb + " conffiles").second,
              std::string(kConfig) + "\n");
    EXPECT_NE(RunCommand("dpkg-deb --field " + deb + " Depends").second.find("curl"),
              std::string::npos);
    // Errors and warnings, and hardening shortfalls (info tags); overrides carry reasons.
    EXPECT_EQ(RunCommand("(lintian --info " + deb + " 2>/dev/null)"),
              std::make_pair(0, std::string()));

    // Where promtool is installed.
    auto [rulesCode, rules] =
        RunCommand("! command -v promtool >/dev/null || promtool check rules " +
                   std::string(TESSARD_SOURCE_DIR) + "/packaging/tessard-alerts.yml");
    EXPECT_EQ(rulesCode, 0) << rules;
}

}  // namespace
}  // namespace TessardTest
