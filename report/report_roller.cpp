#include "report/report_roller.h"

#include "platform/base/exceptions.h"
#include "platform/base/format.h"

namespace Tessard {

using Pelinor::Ref;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;
using Pelinor::System::File;
using Pelinor::System::SystemFactory;

namespace {
constexpr const char* kReportNameRegex = "[a-zA-Z0-9_.-]+";
}

const std::regex reportNamePattern(kReportNameRegex);

bool IsReportName(const std::string& name) {
    return !name.starts_with('.') && std::regex_match(name, reportNamePattern);
}

ReportRoller::ReportRoller(const std::string& baseDirectory, const std::string& reportName,
                           int32_t maxReports, const Ref<Pelinor::Service::Logger>& logger)
    : baseDirectory(baseDirectory), reportName(reportName), maxReports(maxReports), logger(logger) {
    if (!IsReportName(reportName)) {
        throw Pelinor::InvalidArgumentException(
            Pelinor::Format("'%1' contains unexpected regex meta characters                   "
                            "(expected regex '%2')",
                            reportName, kReportNameRegex));
    }
    symlinkName = Pelinor::Format("%1%2%3", baseDirectory, reportName, ".json");
    Log(logger, LogLevel::Trivia, "Report symlink-name: %1", symlinkName);

    // The name is inserted unescaped: each "." in it matches any one character. Compiled
    // only for the one scan that needs it: a compiled pattern held by every name costs more
    // than all the rest of the name's entry.
    reportFilePattern = "^" + reportName + "-" + "([0-9])" + "\\" + ".json" + "$";

    if (!SystemFactory::sInstance->CreateFile(baseDirectory)->IsDirectory()) {
        Log(logger, LogLevel::Error, "Invalid directory: %1", baseDirectory);
        throw Pelinor::InvalidArgumentException("'" + baseDirectory + "' is not a directory");
    }
    Log(logger, LogLevel::Trivia, "Report name: %1, base directory: %2", reportName, baseDirectory);
}

int32_t ReportRoller::NextIndex() {
    if (currentIndex == -1) FindLastIndex();
    currentIndex = (currentIndex + 1) % maxReports;
    Log(logger, LogLevel::Trivia, "Index: %1", currentIndex);
    return currentIndex;
}

void ReportRoller::FindLastIndex() {
    // Only regular report files count; the newest is the highest slot, whatever its age.
    const std::regex pattern(reportFilePattern);
    for (const Ref<File>& entry :
         SystemFactory::sInstance->CreateFile(baseDirectory)->ListFiles()) {
        if (entry->IsDirectory() || entry->IsSymlink()) continue;
        std::smatch match;
        std::string name(entry->GetName());
        if (!std::regex_match(name, match, pattern)) continue;
        currentIndex = std::max(currentIndex, static_cast<int32_t>(match.str(1)[0] - '0'));
    }
    if (currentIndex >= maxReports) currentIndex = -1;
}

std::string ReportRoller::TempFileName(int32_t index) const {
    return Pelinor::Format("%1%2%3%4%5%6", baseDirectory, ".", reportName, "-", index, ".json");
}

bool ReportRoller::CreateTempFile(Ref<Pelinor::System::OutputStream>& stream, Ref<File>& file) {
    int32_t index = NextIndex();
    std::string path;
    try {
        path = TempFileName(index);
        stream = SystemFactory::sInstance->OpenForWrite(path, 0);
    } catch (const Pelinor::Exception& e) {
        Log(logger, LogLevel::Error, "Caught %1 while attempting to create file: %2", e.what(),
            path);
        return false;
    }
    file = SystemFactory::sInstance->CreateFile(path);
    Log(logger, LogLevel::Verbose, "Temporary report name: %1", path);
    return true;
}

void ReportRoller::Rotate(const Ref<File>& file) {
    std::string_view name = file->GetName().substr(1);
    std::string target = baseDirectory;
    target += name;
    // Renamed first and asked about only on failure: the rename itself finds out whether the
    // file is there, so the common case costs no extra look-up.
    Ref<File> renamed = file->Rename(target);
    if (!renamed) {
        if (!file->Exists()) {
            Log(logger, LogLevel::Error, "File object not present: %1", file->ToString());
        } else {
            Log(logger, LogLevel::Error, "Failed to rename the file to %1", target);
        }
        return;
    }
    // Replaces a missing entry or an older link in one step; a regular file is left alone.
    renamed->CreateSymlink(symlinkName, File::kReplaceLink);
    Log(logger, LogLevel::Trivia, "Rotated filename: %1", renamed->GetName());
}

}  // namespace Tessard
