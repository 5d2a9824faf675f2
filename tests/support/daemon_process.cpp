#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "tests/support/http_client.h"

extern char** environ;

namespace TessardTest {

namespace {

constexpr std::string_view kListening = "HTTP endpoint listening on port";
constexpr auto kPoll = std::chrono::milliseconds(10);

int DecodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::string_view EnvName(std::string_view entry) {
    return entry.substr(0, entry.find('='));
}

}  // namespace

bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPoll);
    }
}

std::vector<LogEntry> ParseLog(const std::string& text) {
    static const std::regex kLine(
        R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) (error|warning|info|verbose|trivia) (\S+):(?: (.*))?)");
    std::vector<LogEntry> entries;
    std::istringstream lines(text);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, match, kLine))
            entries.push_back({match[1], match[2], match[3], match[4]});
    }
    return entries;
}

std::set<std::string> ListDir(const std::string& dir) {
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
         it.increment(error))
        names.insert(it->path().filename().string());
    return names;
}

std::optional<HttpReply> Exchange(uint16_t port, const std::string& bytes) {
    RawHttpConnection connection(port);
    if (!connection.Send(bytes)) return std::nullopt;
    return connection.ReadReply();
}

int PostStatus(uint16_t port, const std::string& target, const std::string& body,
               const std::string& contentType) {
    return Status(PostOnce(port, target, body, contentType));
}

DaemonProcess::DaemonProcess(DaemonOptions opts, std::string bin)
    : options(std::move(opts)), binary(std::move(bin)) {
    if (binary.empty()) throw std::runtime_error("the daemon binary is unknown");
    root = temp / "root";
    workDir = temp / "work";
    reportDir = workDir + "/reports";
    port = options.port != 0 ? options.port : FreePort();
    std::filesystem::create_directories(std::filesystem::path(ConfigPath()).parent_path());
    std::filesystem::create_directories(workDir);
    for (const char* dir : {"config", "bin"})
        std::filesystem::create_directories(root + "/usr/lib/tolmar/tessard/plugins/" + dir);
    if (options.createReportDir) std::filesystem::create_directory(reportDir);
    WriteFile(ConfigPath(),
              options.configXml.value_or("<config><httpPort>" + std::to_string(port) +
                                         "</httpPort><log><level>trivia</level></log>" +
                                         options.extraConfig + "</config>\n"));
    if (options.prepare) options.prepare(root);
    Start();
}

DaemonProcess::~DaemonProcess() {
    if (pid > 0) Kill9();
    ExpectNoSanitizerReport();
}

void DaemonProcess::ExpectNoSanitizerReport() const {
    std::string logs = Logs();
    size_t at = logs.find("Sanitizer:");
    if (at != std::string::npos)
        ADD_FAILURE() << "sanitizer report from the daemon:\n" << logs.substr(at, 20000);
}

std::string DaemonProcess::ConfigPath() const {
    return root + "/etc/tolmar/cpservices/tessard/config.xml";
}

void DaemonProcess::Start() {
    if (runs > 0) ExpectNoSanitizerReport();
    ++runs;
    ready = false;
    exitCode.reset();
    logPath = temp / ("daemon-" + std::to_string(runs) + ".log");

    std::vector<std::string> argStrings{binary};
    for (const auto& arg : options.args.value_or(std::vector<std::string>{"-r", reportDir}))
        argStrings.push_back(arg);

    std::vector<std::string> overrides{"TESSARD_ROOT=" + root};
    overrides.insert(overrides.end(), options.env.begin(), options.env.end());
    std::vector<std::string> envStrings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string_view name = EnvName(*entry);
        bool replaced = false;
        for (const auto& o : overrides) replaced = replaced || EnvName(o) == name;
        // Under systemd the daemon would switch to the journal's line form.
        if (!replaced && name != "JOURNAL_STREAM" && name != "NOTIFY_SOCKET")
            envStrings.emplace_back(*entry);
    }
    envStrings.insert(envStrings.end(), overrides.begin(), overrides.end());

    std::vector<char*> argv, envp;
    for (auto& s : argStrings) argv.push_back(s.data());
    argv.push_back(nullptr);
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    // Test sockets must not live on in the daemon.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    int rc = posix_spawn(&pid, binary.c_str(), &actions, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid = -1;
        throw std::runtime_error("cannot start " + binary + ": " + std::to_string(rc));
    }
    if (!options.waitReady) return;

    // Generous: sanitizer builds start slowly.
    Eventually(
        [&] {
            bool alive = Running();
            ready = Logs().find(kListening) != std::string::npos;
            return ready || !alive;
        },
        std::chrono::seconds(30));
}

bool DaemonProcess::Running() {
    if (pid <= 0) return false;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) != pid) return true;
    exitCode = DecodeStatus(status);
    pid = -1;
    return false;
}

std::string DaemonProcess::Logs() const {
    try {
        return ReadFile(logPath);
    } catch (const std::exception&) {
        return {};
    }
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
    std::string logs = Logs();
    if (logs.size() > 6000) logs = "..." + logs.substr(logs.size() - 6000);
    return testing::AssertionFailure()
           << "missing line \"" << level << " " << logger << ": " << message << "\" in the log:\n"
           << logs;
}

std::optional<int> DaemonProcess::WaitExit(std::chrono::milliseconds timeout) {
    if (!Eventually([&] { return !Running(); }, timeout)) return std::nullopt;
    return exitCode;
}

int DaemonProcess::Terminate(int signal, std::chrono::milliseconds timeout) {
    if (!Running()) return exitCode.value_or(-1);
    kill(pid, signal);
    if (auto code = WaitExit(timeout)) return *code;
    Kill9();
    return -1;
}

void DaemonProcess::Kill9() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    int status = 0;
    if (waitpid(pid, &status, 0) == pid) exitCode = DecodeStatus(status);
    pid = -1;
}

bool DaemonProcess::Restart() {
    if (Running()) Terminate();
    Start();
    return ready;
}

std::pair<int, std::string> RunCommand(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return {-1, ""};
    std::array<char, 4096> buffer;
    for (size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        output.append(buffer.data(), n);
    int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

}  // namespace TessardTest
