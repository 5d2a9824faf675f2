#include "daemon/config_check.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <iomanip>
#include <limits>
#include <optional>
#include <set>

#include "http/endpoint.h"
#include "http/writer_policy.h"
#include "platform/base/accounts.h"
#include "platform/base/app.h"
#include "platform/base/format.h"
#include "plugins/plugin_launcher.h"

namespace Tessard {

namespace {

using Pelinor::Service::Config;
using Pelinor::Service::LogLevel;

enum class Kind {
    Port,
    Level,
    Text,
    FastPeriod,
    PoolSize,
    Enabled,
    Frequency,
    PluginLogLevel,
    PidsMax,
    Writers,
    PluginUser,
    Loops
};

std::optional<Kind> Classify(const std::string& key) {
    if (key == kHttpPortKey) return Kind::Port;
    if (key == "log/level") return Kind::Level;
    if (key == kTextfileDirKey) return Kind::Text;
    if (key == kFastPeriodKey) return Kind::FastPeriod;
    if (key == kPoolSizeKey) return Kind::PoolSize;
    if (key == kWritersKey || key.starts_with(kReportWritersPrefix)) return Kind::Writers;
    if (key == kPluginUserKey) return Kind::PluginUser;
    if (key == kHttpLoopsKey) return Kind::Loops;
    if (!key.starts_with(kOverridesPrefix)) return std::nullopt;
    // pluginOverrides/<plugin name, slashes allowed>/<setting>
    auto slash = key.rfind('/');
    if (slash <= kOverridesPrefix.size()) return std::nullopt;
    std::string setting = key.substr(slash + 1);
    if (setting == "enabled") return Kind::Enabled;
    if (setting == "frequency") return Kind::Frequency;
    if (setting == "loglevel") return Kind::PluginLogLevel;
    if (setting == "pidsMax") return Kind::PidsMax;
    return std::nullopt;
}

std::string ValueProblem(Kind kind, const std::string& value) {
    int32_t number = 0;
    bool flag = false;
    Pelinor::Service::LogLevel level;
    switch (kind) {
        case Kind::Port:
            if (!Config::ParseInt(value, number))
                return Pelinor::Format("not an integer: the default %1 is used", kDefaultHttpPort);
            if (number < 0 || number > std::numeric_limits<uint16_t>::max())
                return "not a TCP port: start-up fails";
            return "";
        case Kind::Level:
            return Pelinor::Service::ParseLevel(value, level)
                       ? ""
                       : "not a log level (error, warning, info, verbose, trivia, 3 to 7): "
                         "info is used";
        case Kind::Text:
            return "";
        case Kind::FastPeriod:
            if (!Config::ParseInt(value, number)) return "not an integer: ignored";
            return number > kMinFastPeriodMin
                       ? ""
                       : Pelinor::Format("not above %1: ignored", kMinFastPeriodMin);
        case Kind::PoolSize:
            if (!Config::ParseInt(value, number)) return "not an integer: ignored";
            return number > kDefaultResourcePoolSizeMb && number <= maxResourcePoolSizeMb
                       ? ""
                       : Pelinor::Format("outside %1 to %2: ignored",
                                         kDefaultResourcePoolSizeMb + 1, maxResourcePoolSizeMb);
        case Kind::Enabled:
            return Config::ParseBool(value, flag) ? "" : "not a boolean: ignored";
        case Kind::Frequency:
            return MatchName(value, kFrequencyNames)
                       ? ""
                       : "not fast, medium or slow: the plugin runs as fast";
        case Kind::PluginLogLevel:
            return MatchName(value, kLogLevelNames)
                       ? ""
                       : "not debug, info, warning, error or critical: ignored";
        case Kind::PidsMax:
            if (!Config::ParseInt(value, number)) return "not an integer: ignored";
            return number > 0 ? "" : "not above 0: ignored";
        case Kind::Writers: {
            std::vector<std::string> unknown;
            ParseWriters(value, unknown);
            std::string names;
            for (const std::string& name : unknown) names += (names.empty() ? "" : ", ") + name;
            return names.empty() ? "" : "not all known: " + names + " left out";
        }
        case Kind::Loops:
            if (!Config::ParseInt(value, number)) return "not an integer: ignored";
            return number >= 1 && number <= kMaxHttpLoops
                       ? ""
                       : Pelinor::Format("outside 1 to %1: ignored", kMaxHttpLoops);
        case Kind::PluginUser:
            return Pelinor::System::FindUser(value)
                       ? ""
                       : Pelinor::Format("not a user: plugins run as %1", kFallbackPluginUser);
    }
    return "";
}

// Problems of the plugin descriptions, as the launcher logs them.
class ProblemSink : public Pelinor::Service::LogSink {
  public:
    void Write(LogLevel level, std::string_view logger, std::string_view message) override {
        if (level > LogLevel::Warning) return;
        // The configuration's own problems are listed with their lines already.
        if (message.starts_with("Configur") || message.starts_with("httpPort not present")) return;
        lines.push_back(std::string(Pelinor::Service::LevelName(level)) + " " +
                        std::string(logger) + ": " + std::string(message));
    }
    std::vector<std::string> lines;
};

// Overrides of a plugin that no description names: usually a misspelt name.
std::vector<ConfigProblem> OverridesOfNoPlugin(const Config& config,
                                               const std::set<std::string>& known) {
    std::vector<ConfigProblem> problems;
    for (const Config::Entry& entry : config.Entries()) {
        auto kind = Classify(entry.key);
        if (kind != Kind::Enabled && kind != Kind::Frequency && kind != Kind::PluginLogLevel &&
            kind != Kind::PidsMax)
            continue;
        size_t start = kOverridesPrefix.size();
        std::string name = entry.key.substr(start, entry.key.rfind('/') - start);
        if (!known.contains(name))
            problems.push_back(
                {entry.key, config.Where(entry), "no plugin description names " + name});
    }
    return problems;
}

// An element left empty, such as <pluginOverrides> with every override commented out.
bool IsEmptySection(const Config::Entry& entry) {
    return entry.value.empty() &&
           (entry.key == "log" || entry.key == "metrics" || entry.key == "plugins" ||
            entry.key == "http" || entry.key == kAccessSection ||
            entry.key + "/" == kReportWritersPrefix || entry.key + "/" == kOverridesPrefix ||
            entry.key.starts_with(kOverridesPrefix));
}

}  // namespace

std::vector<ConfigProblem> UnknownKeys(const Config& config) {
    std::vector<ConfigProblem> problems;
    for (const Config::Entry& entry : config.Entries()) {
        if (!Classify(entry.key) && !IsEmptySection(entry))
            problems.push_back({entry.key, config.Where(entry), "unknown key, ignored"});
    }
    return problems;
}

std::vector<ConfigProblem> CheckConfig(const Config& config) {
    std::vector<ConfigProblem> problems;
    bool hasPort = false;
    for (const Config::Entry& entry : config.Entries()) {
        std::string where = config.Where(entry);
        auto kind = Classify(entry.key);
        if (!kind && IsEmptySection(entry)) continue;
        if (!kind) {
            problems.push_back({entry.key, where, "unknown key, ignored"});
            continue;
        }
        hasPort = hasPort || *kind == Kind::Port;
        if (std::string text = ValueProblem(*kind, entry.value); !text.empty())
            problems.push_back({entry.key, where, "'" + entry.value + "' is " + text});
    }
    if (!hasPort) {
        problems.push_back({kHttpPortKey, config.Origin(),
                            Pelinor::Format("absent: the default %1 is used and logged as an error",
                                            kDefaultHttpPort)});
    }
    return problems;
}

int RunConfigCheck(std::ostream& out) {
    Pelinor::Ref<Config> config;
    Pelinor::Service::GetApp().GetConfig(config);

    // Loaded as at start, with the launcher's lines caught rather than logged.
    ProblemSink sink;
    auto launcher = std::make_shared<PluginLauncher>();
    auto& logger = *Pelinor::Service::Logger::sDefaultLogger;
    LogLevel level = logger.GetLevel();
    logger.SetLevel(std::max(level, LogLevel::Info));
    Pelinor::Service::LogSink* previous = Pelinor::Service::SetLogSink(&sink);
    try {
        launcher->Load();
    } catch (const std::exception& e) {
        sink.lines.push_back(std::string("error: ") + e.what());
    }
    Pelinor::Service::SetLogSink(previous);
    logger.SetLevel(level);
    std::vector<PluginPlan> plans = launcher->Plans();

    std::vector<ConfigProblem> problems = CheckConfig(*config);
    std::set<std::string> known = launcher->Disabled();
    for (const PluginPlan& plan : plans) known.insert(plan.name);
    for (ConfigProblem& problem : OverridesOfNoPlugin(*config, known))
        problems.push_back(std::move(problem));
    out << "Configuration " << config->Origin() << "\n";
    for (const ConfigProblem& p : problems)
        out << "  " << p.where << ": " << p.key << ": " << p.text << "\n";
    out << "Plugin descriptions " << Pelinor::System::RootedPath(kPluginConfigDir) << "\n";
    for (const std::string& line : sink.lines) out << "  " << line << "\n";

    out << "Would schedule\n";
    out << "  " << std::left << std::setw(24) << "PLUGIN" << std::setw(10) << "CATEGORY"
        << std::setw(10) << "PERIOD" << std::setw(11) << "FIRST RUN"
        << "MEMORY\n";
    for (const PluginPlan& plan : plans) {
        out << "  " << std::setw(24) << plan.name << std::setw(10) << plan.category << std::setw(10)
            << (std::to_string(plan.period.count()) + "s") << std::setw(11)
            << (std::to_string(plan.firstRun.count()) + "s") << plan.memoryLimitMb << " MiB\n";
    }
    if (plans.empty()) out << "  (no plugin)\n";
    bool clean = problems.empty() && sink.lines.empty();
    out << (clean ? "No problems.\n" : "Problems found.\n");
    return clean ? 0 : 1;
}

}  // namespace Tessard
