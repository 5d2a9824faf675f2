// tessard: receives health reports over loopback HTTP and runs health-check plugins.
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "daemon/config_check.h"
#include "daemon/status_board.h"
#include "daemon/status_publisher.h"
#include "http/endpoint.h"
#include "platform/base/app.h"
#include "platform/kernel/process.h"
#include "plugins/plugin_launcher.h"

namespace {

using Pelinor::Ref;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

constexpr const char* kAppName = "tessard";
constexpr const char* kConfigFilePath = "/etc/tolmar/cpservices/tessard/config.xml";
constexpr int kExitFailure = 1;
constexpr const char* kUsage =
    "Usage: tessard [-r REPORT_DIR] | --help | --version | --check-config | status [--json]\n";
constexpr const char* kHelp =
    "tessard: host health daemon. Stores JSON reports POSTed to http://localhost:<httpPort>/NAME\n"
    "and runs the health-check plugins described in /usr/lib/tolmar/tessard/plugins/config/.\n"
    "\n"
    "  tessard -r REPORT_DIR    run the daemon, storing reports in REPORT_DIR\n"
    "  tessard --check-config   check the configuration and the plugin descriptions, show\n"
    "                           what would be scheduled; exit 0 when clean, 1 otherwise\n"
    "  tessard status [--json]  show the running daemon's reports, plugins and pool\n"
    "  tessard --version        print the version and build number\n"
    "  tessard --help           print this text\n"
    "\n"
    "Configuration: /etc/tolmar/cpservices/tessard/config.xml. Signals: TERM or INT stop,\n"
    "HUP reloads the log level, plugin overrides and descriptions. See tessard(8).\n";

// The process-wide logger; only start-up logs through it.
Ref<Pelinor::Service::Logger> gLogger;

// Drops every log line: --check-config prints its findings itself.
class QuietSink : public Pelinor::Service::LogSink {
    void Write(LogLevel, std::string_view, std::string_view) override {}
};

void WarnUnknownKeys(const Pelinor::Service::Config& config) {
    for (const Tessard::ConfigProblem& problem : Tessard::UnknownKeys(config)) {
        Log(gLogger, LogLevel::Warning, "Unknown configuration key %1 (%2) is ignored", problem.key,
            problem.where);
    }
}

// What the configuration decides beyond the launcher's own keys: who plugins run as and who
// may write which report.
struct Access {
    std::shared_ptr<Tessard::PluginLauncher> launcher;
    std::shared_ptr<Tessard::WriterPolicy> writers = std::make_shared<Tessard::WriterPolicy>();
    std::string pluginUserProblem = {};  // said once, until it changes

    void Apply(const Pelinor::Service::Config& config) {
        Tessard::PluginUser user = Tessard::ResolvePluginUser(config);
        if (!user.problem.empty() && user.problem != pluginUserProblem) {
            Log(gLogger, LogLevel::Warning, "Plugins run as %1: %2", user.account.name,
                user.problem);
        }
        pluginUserProblem = user.problem;
        launcher->SetPluginUser(user.account);
        writers->Load(config, user.account.uid, gLogger);
    }
};

// On the scheduler's thread, between batches: the launcher's state is the batches' own.
void Reload(Access& access) {
    const auto& launcher = access.launcher;
    Pelinor::Service::App& app = Pelinor::Service::GetApp();
    Ref<Pelinor::Service::Config> fresh;
    try {
        fresh = Pelinor::Service::Config::Load(app.GetConfigPath());
    } catch (const std::exception& e) {
        Log(gLogger, LogLevel::Error, "Reload failed, nothing changed: %1", e.what());
        return;
    }
    Ref<Pelinor::Service::Config> running;
    app.GetConfig(running);
    app.SetConfig(fresh);
    if (!launcher->Reload()) {
        app.SetConfig(running);
        return;
    }
    Pelinor::Service::ApplyLogLevel(*fresh);
    access.Apply(*fresh);
    WarnUnknownKeys(*fresh);
    Log(gLogger, LogLevel::Info, "Reloaded %1", app.GetConfigPath());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::string_view(argv[1]) == "status")
        return Tessard::RunStatusCommand(argc - 1, argv + 1);

    // Options are read before the application frame starts, so that --help and --version
    // work without a configuration; -r is logged once the logger exists.
    std::vector<std::string> reportDirectories;
    char action = 0;
    bool knownOptions = Pelinor::System::ForEachOption(
        argc, argv, "r:", {{"help", 'h'}, {"version", 'V'}, {"check-config", 'C'}},
        [&](char option, const char* arg) {
            if (option != 'r') {
                if (action == 0) action = option;
                return;
            }
            reportDirectories.emplace_back(arg);
            if (!reportDirectories.back().ends_with('/')) reportDirectories.back() += '/';
        });
    if (!knownOptions) {
        std::cerr << kUsage;
        return kExitFailure;
    }
    if (action == 'h') {
        std::cout << kUsage << "\n" << kHelp;
        return 0;
    }
    if (action == 'V') {
        std::cout << kAppName << " " << TESSARD_VERSION << " (build " << TESSARD_BUILD_NUMBER
                  << ")\n";
        return 0;
    }
    QuietSink quiet;
    if (action == 'C') Pelinor::Service::SetLogSink(&quiet);

    try {
        Pelinor::Service::SetAppInfo({kAppName, TESSARD_VERSION, TESSARD_BUILD_NUMBER, 0});
        Pelinor::Service::InitApp(Pelinor::System::RootedPath(kConfigFilePath));
    } catch (const std::exception& e) {
        if (action == 'C') {
            std::cout << "Configuration: " << e.what() << "\nProblems found.\n";
            return kExitFailure;
        }
        std::cerr << "Initializing Pelinor failed: " << e.what() << '\n';
        return kExitFailure;
    }
    if (action == 'C') return Tessard::RunConfigCheck(std::cout);

    Pelinor::Service::App& app = Pelinor::Service::GetApp();
    gLogger = app.GetLogger();
    FeatureState_Init();

    if (int error = Pelinor::System::DefaultChildSignals(); error != 0) {
        Log(gLogger, LogLevel::Error, "%1: sigaction() failed %2 %3", "SignalHandlerInit", error,
            Pelinor::System::ErrorText(error));
        return kExitFailure;
    }

    Pelinor::System::AdoptDelegatedCgroup();

    std::string reportDirectory;
    for (const std::string& directory : reportDirectories) {
        reportDirectory = directory;
        Log(gLogger, LogLevel::Verbose, "Report directory is %1", reportDirectory);
    }

    // Outlives every thread that tells it something: the process ends without unwinding.
    const auto& info = Pelinor::Service::GetAppInfo();
    Tessard::StatusBoard board(
        {info.version, info.buildNumber, Pelinor::System::ProcessId(), Tessard::Clock::now()});
    Tessard::StatusPublisher publisher(board, Pelinor::System::RootedPath(Tessard::kStatusFilePath),
                                       gLogger);

    try {
        Ref<Pelinor::Service::Config> configuration;
        app.GetConfig(configuration);
        WarnUnknownKeys(*configuration);
        if (!reportDirectory.empty()) {
            if (std::string problem = Pelinor::System::DirectoryProblem(reportDirectory);
                !problem.empty()) {
                Log(gLogger, LogLevel::Warning, "Report directory %1 cannot take reports: %2",
                    reportDirectory, problem);
            }
        }

        auto launcher = Tessard::PluginLauncher::GetInstance();
        Access access{launcher};
        access.Apply(*configuration);
        if (!access.writers->Restricted()) {
            Log(gLogger, LogLevel::Warning,
                "No access section in %1: every local user may write every report",
                app.GetConfigPath());
        }

        auto endpoint = Pelinor::MakeRef<Tessard::Endpoint>();
        endpoint->SetReportObserver([&board](const auto& outcome) { board.OnReport(outcome); });
        endpoint->SetWriterPolicy(access.writers);
        endpoint->Start(configuration, reportDirectory);

        // Plugins are scheduled only once the endpoint they report to is serving.
        launcher->SetObserver({[&board](const auto& plans) { board.OnScheduled(plans); },
                               [&board](const auto& name, auto at) { board.OnStarted(name, at); },
                               [&board](const auto& outcome) { board.OnOutcome(outcome); }});
        launcher->Init();
        configuration.Reset();  // a reload replaces it

        Pelinor::Service::RunHooks hooks;
        hooks.reload = [&app, &access] {
            Ref<Pelinor::System::ScheduledItem> item;  // released at once: it runs regardless
            app.GetScheduler().Schedule([&access](auto*) { Reload(access); }, 0, item);
        };
        hooks.tick = [&publisher] { publisher.Tick(Tessard::Clock::now()); };
        publisher.Tick(Tessard::Clock::now());
        app.Run(hooks);
        endpoint.Reset();  // stops the HTTP service
        launcher->Stop();  // its running plugins' groups too
        board.OnStopped(Tessard::Clock::now());
        publisher.Tick(Tessard::Clock::now());
    } catch (const std::exception& e) {
        Log(gLogger, LogLevel::Error, "Exiting due to exception: %1", e.what());
        Pelinor::System::QuickExit(kExitFailure);
    }
    Pelinor::System::QuickExit(0);
}
