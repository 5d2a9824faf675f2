// The built daemon as a child process in a private temporary tree, for end-to-end tests.
#pragma once

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"

// Only the e2e target knows where the daemon is built.
#ifndef TESSARD_BINARY
#define TESSARD_BINARY ""
#endif

extern char** environ;

namespace TessardTest {

using namespace std::chrono_literals;

// Every member has a default, so that designated initializers may leave any out.
struct DaemonOptions {
    uint16_t port = 0;          // 0: a free port
    std::string extraConfig{};  // XML placed inside <config> after the generated elements
    std::optional<std::string> configXml{};  // written verbatim instead of the generated file
    std::optional<std::vector<std::string>> args{};  // default: -r <report dir>
    std::vector<std::string> env{};                  // extra NAME=value entries
    bool waitReady = true;                           // wait for the listening line
    // Runs once with the TESSARD_ROOT path after the tree is made, before the first start.
    std::function<void(const std::string& root)> prepare{};
};

// Polls until `done` holds or the time is up; says which.
inline bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();
         std::this_thread::sleep_for(10ms))
        if (std::chrono::steady_clock::now() >= deadline) return false;
    return true;
}

// Runs a shell command: its exit code and everything it printed (both streams).
inline std::pair<int, std::string> RunCommand(const std::string& command) {
    TempDir temp;
    int status = std::system(("(" + command + ") >" + temp / "out" + " 2>&1").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(temp / "out")};
}

class DaemonProcess {
  public:
    // Layout of the private tree: root/ (TESSARD_ROOT), work/reports/ and daemon-<run>.log.
    explicit DaemonProcess(DaemonOptions opts = {}, std::string binary = TESSARD_BINARY)
        : options(std::move(opts)), binary(std::move(binary)) {
        port = options.port != 0 ? options.port : FreePort();
        for (const std::string& dir : {reportDir, root + "/usr/lib/tolmar/tessard/plugins/config",
                                       root + "/usr/lib/tolmar/tessard/plugins/bin",
                                       root + "/etc/tolmar/cpservices/tessard"})
            std::filesystem::create_directories(dir);
        WriteFile(ConfigPath(),
                  options.configXml.value_or("<config><httpPort>" + std::to_string(port) +
                                             "</httpPort><log><level>trivia</level></log>" +
                                             options.extraConfig + "</config>\n"));
        if (options.prepare) options.prepare(root);
        Restart();
    }
    ~DaemonProcess() { Kill9(); }

    uint16_t Port() const { return port; }
    const std::string& Root() const { return root; }
    const std::string& ReportDir() const { return reportDir; }  // no trailing "/"
    std::string ConfigPath() const { return root + "/etc/tolmar/cpservices/tessard/config.xml"; }

    // Whether the current run logged that it listens (false when it exited first).
    bool Ready() const { return ready; }
    bool Running() {
        int status = 0;
        if (pid <= 0 || waitpid(pid, &status, WNOHANG) != pid) return pid > 0;
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid = -1;
        return false;
    }

    // Everything the current run wrote to stdout and stderr.
    std::string Logs() const { return std::filesystem::exists(logPath) ? ReadFile(logPath) : ""; }
    bool WaitForLog(const std::string& substring, std::chrono::milliseconds timeout) const {
        return Eventually([&] { return Logs().find(substring) != std::string::npos; }, timeout);
    }
    // Waits for a line with exactly this level, logger and message; shows the log when absent.
    testing::AssertionResult HasLine(const std::string& level, const std::string& logger,
                                     const std::string& message,
                                     std::chrono::milliseconds timeout = 5s) const {
        const std::string line = " " + level + " " + logger + ": " + message + "\n";
        if (WaitForLog(line, timeout)) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "missing \"" << line << "\" in:\n" << Logs();
    }

    // Exit code (128 + signal when killed); empty while still running after `timeout`.
    std::optional<int> WaitExit(std::chrono::milliseconds timeout = 20s) {
        if (!Eventually([&] { return !Running(); }, timeout)) return std::nullopt;
        return exitCode;
    }
    void Signal(int signal) const {
        if (pid > 0) ::kill(pid, signal);
    }
    // Sends the signal and waits; a daemon that does not stop in time is killed, giving -1.
    int Terminate(int signal = SIGTERM) {
        Signal(signal);
        auto code = WaitExit();
        Kill9();
        return code.value_or(-1);
    }
    // Kills a daemon still running; fails the test on a sanitizer report of the run.
    void Kill9() {
        if (Running()) kill(pid, SIGKILL);
        WaitExit();
        // Sanitizer builds of the daemon report at exit; any report fails the test.
        std::string logs = Logs();
        if (size_t at = logs.find("Sanitizer:"); at != std::string::npos)
            ADD_FAILURE() << "sanitizer report from the daemon:\n" << logs.substr(at, 20000);
    }
    // Starts the daemon again on the same tree and port with `options` (killing a running one);
    // whether it became ready.
    bool Restart() {
        Kill9();
        logPath = temp / ("daemon-" + std::to_string(++runs) + ".log");
        ready = false;
        exitCode.reset();
        // The signals as a service manager leaves them; without its variables, which would
        // switch the daemon to the journal's line form and to notifying.
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
        if (posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ))
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        // Generous: sanitizer builds start slowly.
        if (options.waitReady)
            Eventually(
                [&] { return (ready = WaitForLog("HTTP endpoint listening", 0s)) || !Running(); },
                30s);
        return ready;
    }

    DaemonOptions options;  // a change takes effect at the next start

  private:
    std::string binary;
    TempDir temp;
    std::string root = temp / "root";
    std::string reportDir = temp / "work/reports";
    std::string logPath;
    uint16_t port = 0;
    int runs = 0;
    pid_t pid = -1;
    bool ready = false;
    std::optional<int> exitCode;
};

}  // namespace TessardTest
