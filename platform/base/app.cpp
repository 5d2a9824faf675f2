#include "platform/base/app.h"

#include <getopt.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/base/exceptions.h"

namespace Pelinor::Service {

namespace {

constexpr const char* kLogLevelKey = "log/level";

AppInfo& RegisteredInfo() {
    static AppInfo info;
    return info;
}

// Run() waits for these; every other thread has them blocked.
sigset_t RunSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

// Signals that would end the daemon by default but mean nothing to it: a stray
// `kill -USR1` or a write to a closed socket must not stop a service.
constexpr int kIgnoredSignals[] = {SIGUSR1, SIGUSR2, SIGPIPE};

timespec ToTimespec(std::chrono::milliseconds period) {
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period);
    return {static_cast<time_t>(seconds.count()),
            static_cast<long>(std::chrono::nanoseconds(period - seconds).count())};
}

// The sd_notify(3) datagram, sent only when a supervisor asked for it.
void NotifySupervisor(const char* state) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
    sockaddr_un address{};
    size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    if (address.sun_path[0] == '@') address.sun_path[0] = '\0';  // abstract namespace
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (::sendto(fd, state, std::strlen(state), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        Log(Logger::sDefaultLogger, LogLevel::Warning, "Cannot notify the supervisor: %1",
            std::strerror(errno));
    }
    ::close(fd);
}

}  // namespace

void SetAppInfo(const AppInfo& info) {
    if (info.name.empty()) throw InvalidArgumentException("The application needs a name");
    RegisteredInfo() = info;
}

const AppInfo& GetAppInfo() {
    return RegisteredInfo();
}

void InitApp(const std::string& configPath) {
    for (int signal : kIgnoredSignals) {
        struct sigaction action {};
        action.sa_handler = SIG_IGN;
        sigemptyset(&action.sa_mask);
        if (::sigaction(signal, &action, nullptr) != 0) {
            throw SystemError("Cannot ignore a signal in", RegisteredInfo().name, errno);
        }
    }
    // Threads started from here on inherit the mask, so only Run() sees these signals.
    sigset_t waited = RunSignals();
    if (int error = pthread_sigmask(SIG_BLOCK, &waited, nullptr); error != 0) {
        throw SystemError("Cannot block the stop signals of", RegisteredInfo().name, error);
    }
    // Validates $TESSARD_TIME_SCALE before anything is scheduled.
    System::Scheduler::Real();
    App& app = GetApp();
    app.configPath = configPath;
    app.config = Config::Load(configPath);
    app.logger = Logger::CreateLogger(Logger::sDefaultLogger, RegisteredInfo().name);
    std::string levelText;
    if (app.config->GetString(kLogLevelKey, levelText)) ApplyLogLevel(*app.config);
}

void ApplyLogLevel(const Config& config) {
    std::string levelText;
    LogLevel level = LogLevel::Info;
    if (config.GetString(kLogLevelKey, levelText) && !ParseLevel(levelText, level)) {
        config.ReportInvalid(kLogLevelKey, levelText);
        return;
    }
    Logger::sDefaultLogger->SetLevel(level);
}

App& GetApp() {
    static App app;
    return app;
}

void App::Run(const RunHooks& hooks) {
    NotifySupervisor("READY=1");
    sigset_t waited = RunSignals();
    const timespec tick = ToTimespec(hooks.tickPeriod);
    for (;;) {
        int received = ::sigtimedwait(&waited, nullptr, &tick);
        if (received == SIGHUP) {
            Log(logger, LogLevel::Info, "Reloading on signal %1", received);
            NotifySupervisor("RELOADING=1");
            if (hooks.reload) hooks.reload();
            NotifySupervisor("READY=1");
        } else if (received > 0) {
            Log(logger, LogLevel::Verbose, "Stopping on signal %1", received);
            break;
        } else if (hooks.tick) {  // the period elapsed (or EINTR)
            hooks.tick();
        }
    }
    NotifySupervisor("STOPPING=1");
}

}  // namespace Pelinor::Service

namespace Pelinor::System {

void QuickExit(int code) {
    ::_exit(code);
}

std::string RootedPath(const std::string& path) {
    const char* root = std::getenv("TESSARD_ROOT");
    return root == nullptr ? path : root + path;
}

int DefaultChildSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    return ::sigaction(SIGCHLD, &action, nullptr) == -1 ? errno : 0;
}

std::string ErrorText(int error) {
    return std::strerror(error);
}

bool ForEachOption(int argc, char** argv, const char* options,
                   const std::vector<LongOption>& longOptions,
                   const std::function<void(char, const char*)>& onOption) {
    std::vector<option> table;
    for (const LongOption& o : longOptions)
        table.push_back({o.name, no_argument, nullptr, o.letter});
    table.push_back({});
    optind = 1;
    for (int c; (c = ::getopt_long(argc, argv, options, table.data(), nullptr)) != -1;) {
        if (c == '?' || c == ':') return false;
        onOption(static_cast<char>(c), optarg);
    }
    return true;
}

std::string DirectoryProblem(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (!S_ISDIR(st.st_mode)) return std::strerror(ENOTDIR);
    if (::access(path.c_str(), W_OK | X_OK) != 0) return std::strerror(errno);
    return "";
}

int ProcessId() {
    return static_cast<int>(::getpid());
}

}  // namespace Pelinor::System

void FeatureState_Init() {
    // The Linux platform has no feature switches yet; start-up keeps its place in the order.
}
