#include "http/endpoint.h"

#include "http/tessard_handler.h"
#include "platform/fs/files.h"

namespace Tessard {

using Pelinor::Ref;
using Pelinor::Service::Log;
using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;

const std::string localBaseUrl = std::string("http://") + kListenHost;

int32_t GetHttpPort(const Ref<Pelinor::Service::Config>& configuration, const Ref<Logger>& logger) {
    int32_t port = kDefaultHttpPort;
    if (!configuration->GetInt(kHttpPortKey, port)) {
        Log(logger, LogLevel::Error, "httpPort not present. Assuming default: %1",
            kDefaultHttpPort);
    }
    return port;
}

Endpoint::Endpoint() : logger(Logger::CreateLogger(Logger::sDefaultLogger, "tessardEndpoint")) {
    Log(logger, LogLevel::Info, "Initialized the HTTP endpoint");
}

Endpoint::~Endpoint() {
    if (httpService) httpService->Stop();
}

void Endpoint::Start(const Ref<Pelinor::Service::Config>& configuration,
                     const std::string& reportDirectory) {
    int32_t port = GetHttpPort(configuration, logger);
    Log(logger, LogLevel::Trivia, "HTTP port: %1", port);

    Ref<Pelinor::System::ServerSocket> socket =
        Pelinor::System::SystemFactory::sInstance->CreateServerSocket();
    socket->Listen(kListenHost, port);
    Ref<Pelinor::Http::RequestHandler> handler =
        Pelinor::MakeRef<TessardHandler>(reportDirectory, reportObserver, writerPolicy);

    Pelinor::Http::HttpLimits limits;
    int32_t loops = 0;
    if (configuration->GetInt(kHttpLoopsKey, loops)) {
        if (loops >= 1 && loops <= kMaxHttpLoops) {
            limits.maxLoops = static_cast<size_t>(loops);
        } else {
            Log(logger, LogLevel::Warning, "%1 must be 1 to %2, not %3: ignored", kHttpLoopsKey,
                kMaxHttpLoops, loops);
        }
    }
    httpService = Pelinor::Http::CreateHttpSvc(
        socket, logger, Pelinor::Http::GetDefaultResponseHeadersDefinitions(), limits);
    httpService->SetRequestHandler(handler);
    httpService->Start();
    Log(logger, LogLevel::Info, "HTTP endpoint listening on port: %1", port);
}

}  // namespace Tessard
