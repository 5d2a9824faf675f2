// The report-name check and the file names derived from a name: an accepted name keeps all of
// its files, and only its own, directly inside the report directory.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "platform/base/exceptions.h"
#include "report/report_roller.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/support/temp_dir.h"

using namespace TessardTest;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TessardFuzz::Setup();
    static TempDir dir;
    const std::string name(reinterpret_cast<const char*>(data), size);
    const bool accepted = Tessard::IsReportName(name);
    Pelinor::Ref<Tessard::ReportRoller> roller;
    try {
        roller = Pelinor::MakeRef<Tessard::ReportRoller>(dir.Path() + "/", name, 3,
                                                         Pelinor::Service::Logger::sDefaultLogger);
    } catch (const Pelinor::InvalidArgumentException&) {
        if (accepted) __builtin_trap();
        return 0;
    }
    if (!accepted) __builtin_trap();
    // Its temporary ".N-i.json" would be the report file of the name ".N".
    if (Tessard::IsReportName("." + name)) __builtin_trap();
    // The longest file a name makes is its link's hidden temporary, ".N.json.lnk".
    if (name.size() + std::strlen("..json.lnk") > NAME_MAX) return 0;
    Pelinor::Ref<Pelinor::System::OutputStream> stream;
    Pelinor::Ref<Pelinor::System::File> file;
    if (!roller->CreateTempFile(stream, file)) __builtin_trap();
    if (ListDir(dir.Path()) != std::set<std::string>{"." + name + "-0.json"}) __builtin_trap();
    stream->Write(name.data(), name.size());
    stream->Close();
    roller->Rotate(file);
    if (ListDir(dir.Path()) != std::set<std::string>{name + "-0.json", name + ".json"} ||
        ReadLink(dir / (name + ".json")) != name + "-0.json" ||
        ReadFile(dir / (name + "-0.json")) != name)
        __builtin_trap();
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
        std::filesystem::remove(entry.path());
    return 0;
}
