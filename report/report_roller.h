// The files of one report name: a ring of numbered reports written through hidden
// temporary files, and a link naming the newest.
#pragma once

#include <cstdint>
#include <regex>
#include <string>

#include "platform/base/logging.h"
#include "platform/base/object.h"
#include "platform/fs/files.h"

namespace Tessard {

// Report names: letters, digits, "_", "." and "-", matched whole.
extern const std::regex reportNamePattern;
// A name the daemon stores: it matches the pattern and does not begin with ".", since
// ".N-i.json" is the temporary file of N, so the name ".N" would share its files with N's.
bool IsReportName(const std::string& name);

class ReportRoller : public Pelinor::ObjectImpl {
  public:
    // Throws Pelinor::InvalidArgumentException when the name or the directory is unfit.
    // Creates nothing on disk.
    ReportRoller(const std::string& baseDirectory, const std::string& reportName,
                 int32_t maxReports, const Pelinor::Ref<Pelinor::Service::Logger>& logger);

    // Opens the temporary file of the next slot. False when it cannot be opened
    // (the slot is used up all the same).
    bool CreateTempFile(Pelinor::Ref<Pelinor::System::OutputStream>& stream,
                        Pelinor::Ref<Pelinor::System::File>& file);
    // Puts a closed temporary file in place over its slot and points the link at it.
    void Rotate(const Pelinor::Ref<Pelinor::System::File>& file);

  private:
    int32_t NextIndex();
    void FindLastIndex();
    std::string TempFileName(int32_t index) const;

    const std::string baseDirectory;
    const std::string reportName;
    const int32_t maxReports;
    int32_t currentIndex = -1;      // slot handed out last; -1 until the first scan
    std::string reportFilePattern;  // of this name's report files, for the restart scan
    std::string symlinkName;
    const Pelinor::Ref<Pelinor::Service::Logger> logger;
};

}  // namespace Tessard
