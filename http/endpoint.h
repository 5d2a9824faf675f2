// The daemon's HTTP front door on the loopback host name.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "http/writer_policy.h"
#include "platform/base/config.h"
#include "platform/http/http.h"
#include "report/report_outcome.h"

namespace Tessard {

constexpr const char* kHttpPortKey = "httpPort";
// At most this many event loops serve reports; fewer where the daemon may use fewer CPUs.
constexpr const char* kHttpLoopsKey = "http/loops";
constexpr int32_t kMaxHttpLoops = 64;
constexpr int32_t kDefaultHttpPort = 9996;
constexpr const char* kListenHost = "localhost";
// The daemon's own address as plugins are told it: scheme and host, no port.
extern const std::string localBaseUrl;

// The configured port, or the default (logged as an error through `logger`).
int32_t GetHttpPort(const Pelinor::Ref<Pelinor::Service::Config>& configuration,
                    const Pelinor::Ref<Pelinor::Service::Logger>& logger);

class Endpoint : public Pelinor::ObjectImpl {
  public:
    Endpoint();
    ~Endpoint() override;  // stops the HTTP service

    // Told of every answered request whose report name is known; set before Start.
    void SetReportObserver(ReportOutcomeObserver observer) { reportObserver = std::move(observer); }
    // Who may write which report names; set before Start. Without it everyone may.
    void SetWriterPolicy(std::shared_ptr<const WriterPolicy> policy) {
        writerPolicy = std::move(policy);
    }
    // Listens, installs the upload handler and starts serving; throws on failure.
    void Start(const Pelinor::Ref<Pelinor::Service::Config>& configuration,
               const std::string& reportDirectory);

  private:
    Pelinor::Ref<Pelinor::Http::HttpService> httpService;
    Pelinor::Ref<Pelinor::Service::Logger> logger;
    ReportOutcomeObserver reportObserver;
    std::shared_ptr<const WriterPolicy> writerPolicy;
};

}  // namespace Tessard
