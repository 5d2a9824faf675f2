// The built daemon as a child process in a private temporary tree, for end-to-end tests.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <set>
#include <vector>

#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"

// Only the e2e target knows where the daemon is built.
#ifndef TESSARD_BINARY
#define TESSARD_BINARY ""
#endif

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
bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s);
// Runs a shell command: its exit code and everything it printed (both streams).
std::pair<int, std::string> RunCommand(const std::string& command);

class DaemonProcess {
  public:
    // Layout of the private tree: root/ (TESSARD_ROOT), work/reports/ and daemon-<run>.log.
    explicit DaemonProcess(DaemonOptions options = {}, std::string binary = TESSARD_BINARY);
    ~DaemonProcess();

    uint16_t Port() const { return port; }
    const std::string& Root() const { return root; }
    const std::string& ReportDir() const { return reportDir; }  // no trailing "/"
    std::string ConfigPath() const { return root + "/etc/tolmar/cpservices/tessard/config.xml"; }

    // Whether the current run logged that it listens (false when it exited first).
    bool Ready() const { return ready; }
    bool Running();

    // Everything the current run wrote to stdout and stderr.
    std::string Logs() const;
    bool WaitForLog(const std::string& substring, std::chrono::milliseconds timeout) const;
    // Waits for a line with exactly this level, logger and message; shows the log when absent.
    testing::AssertionResult HasLine(const std::string& level, const std::string& logger,
                                     const std::string& message,
                                     std::chrono::milliseconds timeout = 5s) const;

    // Exit code (128 + signal when killed); empty while still running after `timeout`.
    std::optional<int> WaitExit(std::chrono::milliseconds timeout = 20s);
    void Signal(int signal) const {
        if (pid > 0) ::kill(pid, signal);
    }
    // Sends the signal and waits; a daemon that does not stop in time is killed, giving -1.
    int Terminate(int signal = SIGTERM);
    // Kills a daemon still running; fails the test on a sanitizer report of the run.
    void Kill9();
    // Starts the daemon again on the same tree and port with `options` (killing a running one);
    // whether it became ready.
    bool Restart();

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
