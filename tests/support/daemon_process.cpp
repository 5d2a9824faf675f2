#include "tests/support/daemon_process.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

extern char** environ;

namespace TessardTest {

bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();
         std::this_thread::sleep_for(10ms))
        if (std::chrono::steady_clock::now() >= deadline) return false;
    return true;
}

std::pair<int, std::string> RunCommand(const std::string& command) {
    TempDir temp;
    int status = std::system(("(" + command + ") >" + temp / "out" + " 2>&1").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(temp / "out")};
}

DaemonProcess::DaemonProcess(DaemonOptions opts, std::string bin)
    : options(std::move(opts)), binary(std::move(bin)) {
    port = options.port != 0 ? options.port : FreePort();
    for (const std::string& dir :
         {reportDir, root + "/usr/lib/tolmar/tessard/plugins/config",
          root + "/usr/lib/tolmar/tessard/plugins/bin", root + "/etc/tolmar/cpservices/tessard"})
        std::filesystem::create_directories(dir);
    WriteFile(ConfigPath(),
              options.configXml.value_or("<config><httpPort>" + std::to_string(port) +
                                         "</httpPort><log><level>trivia</level></log>" +
                                         options.extraConfig + "</config>\n"));
    if (options.prepare) options.prepare(root);
    Restart();
}

DaemonProcess::~DaemonProcess() {
    Kill9();
}

bool DaemonProcess::Restart() {
    Kill9();
    logPath = temp / ("daemon-" + std::to_string(++runs) + ".log");
    ready = false;
    exitCode.reset();
    // The signals as a service manager leaves them; without its variables, which would switch
    // the daemon to the journal's line form and to notifying.
    std::string command = "exec env --default-signal -u JOURNAL_STREAM -u NOTIFY_SOCKET";
    for (const auto& word : options.env) command += " '" + word + "'";
    command += " TESSARD_ROOT='" + root + "' '" + binary + "'";
    for (const auto& arg : options.args.value_or(std::vector<std::string>{"-r", reportDir}))
        command += " '" + arg + "'";
    command += " </dev/null >'" + logPath + "' 2>&1";
    const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Test sockets must not live on in the daemon.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    // Generous: sanitizer builds start slowly.
    if (options.waitReady)
        Eventually(
            [&] { return (ready = WaitForLog("HTTP endpoint listening", 0s)) || !Running(); }, 30s);
    return ready;
}

bool DaemonProcess::Running() {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, WNOHANG) != pid) return pid > 0;
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid = -1;
    return false;
}

std::string DaemonProcess::Logs() const {
    return std::filesystem::exists(logPath) ? ReadFile(logPath) : "";
}

bool DaemonProcess::WaitForLog(const std::string& substring,
                               std::chrono::milliseconds timeout) const {
    return Eventually([&] { return Logs().find(substring) != std::string::npos; }, timeout);
}

testing::AssertionResult DaemonProcess::HasLine(const std::string& level, const std::string& logger,
                                                const std::string& message,
                                                std::chrono::milliseconds timeout) const {
    if (WaitForLog(" " + level + " " + logger + ": " + message + "\n", timeout))
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "missing \"" << level << " " << logger << ": " << message << "\" in:\n"
           << Logs();
}

std::optional<int> DaemonProcess::WaitExit(std::chrono::milliseconds timeout) {
    if (!Eventually([&] { return !Running(); }, timeout)) return std::nullopt;
    return exitCode;
}

int DaemonProcess::Terminate(int signal) {
    Signal(signal);
    auto code = WaitExit();
    Kill9();
    return code.value_or(-1);
}

void DaemonProcess::Kill9() {
    if (Running()) kill(pid, SIGKILL);
    WaitExit();
    // Sanitizer builds of the daemon report at exit; any report fails the test.
    std::string logs = Logs();
    if (size_t at = logs.find("Sanitizer:"); at != std::string::npos)
        ADD_FAILURE() << "sanitizer report from the daemon:\n" << logs.substr(at, 20000);
}

}  // namespace TessardTest
