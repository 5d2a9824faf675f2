#include "platform/app.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/exceptions.h"

namespace Pelinor::Service {

namespace {

constexpr const char* kLogLevelKey = "log/level";

AppInfo& RegisteredInfo() {
    static AppInfo info;
    return info;
}

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
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

void InitApp(const std::string& configPath) {
    // Threads started from here on inherit the mask, so only Run() sees the stop signals.
    sigset_t stop = StopSignals();
    if (int error = pthread_sigmask(SIG_BLOCK, &stop, nullptr); error != 0) {
        throw SystemError("Cannot block the stop signals of", RegisteredInfo().name, error);
    }
    // Validates $TESSARD_TIME_SCALE before anything is scheduled.
    System::Scheduler::Real();
    App& app = GetApp();
    app.config = Config::Load(configPath);
    app.logger = Logger::CreateLogger(Logger::sDefaultLogger, RegisteredInfo().name);

    std::string levelText;
    if (app.config->GetString(kLogLevelKey, levelText)) {
        LogLevel level;
        if (ParseLevel(levelText, level)) {
            Logger::sDefaultLogger->SetLevel(level);
        } else {
            Log(Logger::sDefaultLogger, LogLevel::Warning,
                "Configuration key %1 has an invalid value: '%2'", kLogLevelKey, levelText);
        }
    }
}

App& GetApp() {
    static App app;
    return app;
}

void App::Run() {
    NotifySupervisor("READY=1");
    sigset_t stop = StopSignals();
    int received = 0;
    while (sigwait(&stop, &received) != 0) {
    }
    Log(logger, LogLevel::Verbose, "Stopping on signal %1", received);
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
                   const std::function<void(char, const char*)>& onOption) {
    optind = 1;
    for (int c; (c = ::getopt(argc, argv, options)) != -1;) {
        if (c == '?' || c == ':') return false;
        onOption(static_cast<char>(c), optarg);
    }
    return true;
}

}  // namespace Pelinor::System

void FeatureState_Init() {
    // The Linux platform has no feature switches yet; start-up keeps its place in the order.
}
