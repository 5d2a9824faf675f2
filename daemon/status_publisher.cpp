#include "daemon/status_publisher.h"

#include <rapidjson/document.h>

#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "daemon/config_check.h"
#include "platform/base/app.h"
#include "platform/base/exceptions.h"
#include "platform/fs/files.h"

namespace Tessard {

using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

StatusPublisher::StatusPublisher(StatusBoard& board, std::string statusPath,
                                 Pelinor::Ref<Pelinor::Service::Logger> logger)
    : board(board), statusPath(std::move(statusPath)), logger(std::move(logger)) {}

void StatusPublisher::Tick(Clock::time_point now) {
    if (now - lastPool >= kPoolRefresh) {
        board.OnPool(ReadPoolFigures());
        lastPool = now;
    }
    if (!board.TakeChanged() && now - lastWrite < kStatusRefresh) return;
    lastWrite = now;
    Write(statusPath, board.Json(now));
    Pelinor::Ref<Pelinor::Service::Config> config;
    Pelinor::Service::GetApp().GetConfig(config);
    std::string textfileDir;
    if (config->GetString(kTextfileDirKey, textfileDir) && !textfileDir.empty()) {
        if (!textfileDir.ends_with('/')) textfileDir += '/';
        Write(textfileDir + kTextfileName, board.Prometheus(now));
    }
}

void StatusPublisher::Write(const std::string& path, const std::string& content) {
    try {
        Pelinor::System::ReplaceFile(path, content);
        if (!lastProblem.empty() && lastProblem.starts_with(path)) lastProblem.clear();
    } catch (const Pelinor::IOException& e) {
        std::string problem = path + ": " + e.what();
        if (problem == lastProblem) return;
        lastProblem = problem;
        Log(logger, LogLevel::Warning, "Cannot write the status to %1", problem);
    }
}

namespace {

std::string Text(const rapidjson::Value& value) {
    if (value.IsString()) return value.GetString();
    if (value.IsInt64()) return std::to_string(value.GetInt64());
    if (value.IsUint64()) return std::to_string(value.GetUint64());
    return "-";
}

const rapidjson::Value& Member(const rapidjson::Value& object, const char* name) {
    static const rapidjson::Value kNull;
    if (!object.IsObject()) return kNull;
    auto found = object.FindMember(name);
    return found == object.MemberEnd() ? kNull : found->value;
}

void PrintTable(const rapidjson::Document& status, std::ostream& out) {
    const rapidjson::Value kEmpty(rapidjson::kArrayType);
    const auto& daemon = Member(status, "daemon");
    out << "tessard " << Text(Member(daemon, "version")) << " (build "
        << Text(Member(daemon, "build")) << "), pid " << Text(Member(daemon, "pid")) << ", started "
        << Text(Member(daemon, "started")) << ", status of " << Text(Member(daemon, "updated"))
        << "\n";
    if (Member(daemon, "stopped").IsString())
        out << "STOPPED at " << Text(Member(daemon, "stopped")) << ": these are its last figures\n";
    out << "\n";

    out << std::left << std::setw(24) << "REPORT" << std::setw(22) << "LAST" << std::setw(10)
        << "SIZE" << std::setw(16) << "WRITER"
        << "ANSWERS\n";
    const auto& reports = Member(status, "reports");
    if (!reports.IsArray() || reports.Empty()) out << "(none yet)\n";
    for (const auto& report : reports.IsArray() ? reports.GetArray() : kEmpty.GetArray()) {
        std::string answers;
        const auto& counts = Member(report, "answers");
        if (counts.IsObject())
            for (const auto& c : counts.GetObject())
                answers += std::string(answers.empty() ? "" : " ") + c.name.GetString() + ":" +
                           Text(c.value);
        out << std::setw(24) << Text(Member(report, "name")) << std::setw(22)
            << Text(Member(report, "last")) << std::setw(10) << Text(Member(report, "size"))
            << std::setw(16) << Text(Member(report, "writer")) << answers << "\n";
    }

    out << "\n"
        << std::setw(20) << "PLUGIN" << std::setw(10) << "CATEGORY" << std::setw(8) << "PERIOD"
        << std::setw(22) << "LAST START" << std::setw(16) << "OUTCOME" << std::setw(10)
        << "RUN TIME"
        << "PEAK MEMORY\n";
    const auto& plugins = Member(status, "plugins");
    if (!plugins.IsArray() || plugins.Empty()) out << "(none scheduled)\n";
    for (const auto& plugin : plugins.IsArray() ? plugins.GetArray() : kEmpty.GetArray()) {
        const auto& last = Member(plugin, "lastOutcome");
        std::string outcome = "-", runTime = "-", peak = "-";
        if (last.IsObject()) {
            outcome = Text(Member(last, "end")) + " " + Text(Member(last, "status"));
            runTime = Text(Member(last, "runTimeMs")) + " ms";
            peak = Text(Member(last, "peakMemoryKb")) + " KiB";
        }
        out << std::setw(20) << Text(Member(plugin, "name")) << std::setw(10)
            << Text(Member(plugin, "category")) << std::setw(8)
            << (Text(Member(plugin, "period")) + "s") << std::setw(22)
            << Text(Member(plugin, "lastStart")) << std::setw(16) << outcome << std::setw(10)
            << runTime << peak << "\n";
    }

    const auto& pool = Member(status, "pool");
    out << "\npool: ";
    if (Member(pool, "found").IsTrue()) {
        out << Text(Member(pool, "childGroups")) << " plugin group(s), peak "
            << Text(Member(pool, "peakMemoryKb")) << " KiB\n";
    } else {
        out << "not found (" << Text(Member(pool, "problem")) << ")\n";
    }
}

}  // namespace

int RunStatusCommand(int argc, char** argv) {
    bool json = argc == 2 && std::string_view(argv[1]) == "--json";
    if (argc > 2 || (argc == 2 && !json)) {
        std::cerr << "Usage: tessard status [--json]\n";
        return 1;
    }
    std::string path = Pelinor::System::RootedPath(kStatusFilePath);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    if (!in || text.str().empty()) {
        std::cerr << "tessard status: cannot read " << path << " (is tessard running?)\n";
        return 1;
    }
    if (json) {
        std::cout << text.str();
        return 0;
    }
    rapidjson::Document status;
    status.Parse(text.str().c_str());
    if (status.HasParseError() || !status.IsObject()) {
        std::cerr << "tessard status: " << path << " is not a status file\n";
        return 1;
    }
    PrintTable(status, std::cout);
    return 0;
}

}  // namespace Tessard
