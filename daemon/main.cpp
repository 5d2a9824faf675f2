// tessard: receives health reports over loopback HTTP and runs health-check plugins.
#include <exception>
#include <iostream>
#include <string>

#include "http/endpoint.h"
#include "platform/app.h"
#include "platform/process.h"
#include "plugins/plugin_launcher.h"

namespace {

using Pelinor::Ref;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

constexpr const char* kAppName = "tessard";
constexpr const char* kConfigFilePath = "/etc/tolmar/cpservices/tessard/config.xml";
constexpr int kExitFailure = 1;

// The process-wide logger; only start-up logs through it.
Ref<Pelinor::Service::Logger> gLogger;

}  // namespace

int main(int argc, char** argv) {
    try {
        Pelinor::Service::SetAppInfo({kAppName, TESSARD_VERSION, TESSARD_BUILD_NUMBER, 0});
        Pelinor::Service::InitApp(Pelinor::System::RootedPath(kConfigFilePath));
    } catch (const std::exception& e) {
        std::cerr << "Initializing Pelinor failed: " << e.what() << '\n';
        return kExitFailure;
    }
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
    bool knownOptions =
        Pelinor::System::ForEachOption(argc, argv, "r:", [&](char, const char* arg) {
            reportDirectory = arg;
            if (!reportDirectory.ends_with('/')) reportDirectory += '/';
            Log(gLogger, LogLevel::Verbose, "Report directory is %1", reportDirectory);
        });
    if (!knownOptions) return kExitFailure;

    try {
        Ref<Pelinor::Service::Config> configuration;
        app.GetConfig(configuration);
        auto endpoint = Pelinor::MakeRef<Tessard::Endpoint>();
        endpoint->Start(configuration, reportDirectory);

        // Plugins are scheduled only once the endpoint they report to is serving.
        Tessard::PluginLauncher::GetInstance()->Init();

        app.Run();
        endpoint.Reset();  // stops the HTTP service
        Tessard::PluginLauncher::GetInstance()->Stop();
        configuration.Reset();
    } catch (const std::exception& e) {
        Log(gLogger, LogLevel::Error, "Exiting due to exception: %1", e.what());
        Pelinor::System::QuickExit(kExitFailure);
    }
    Pelinor::System::QuickExit(0);
}
