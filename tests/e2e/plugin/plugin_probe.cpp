// A stand-in plugin for end-to-end tests. What it does depends on the name it was
// started under; it writes its findings next to itself, in <argv[0]>.out/.
//   probe*   records its argument vector, environment, open descriptors and cgroup
//   hog*     touches twice the memory its group argument allows
//   sleeper* counts every SIGTERM it receives and keeps running
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

std::string outDir;
std::string termsPath;  // built before the handler is installed: the handler may not allocate

void Append(const std::string& file, const std::string& line) {
    std::ofstream(outDir + file, std::ios::app) << line << '\n';
}

// Each run replaces the previous run's record.
void Record(const std::string& file, const std::vector<std::string>& lines) {
    std::ofstream out(outDir + file, std::ios::trunc);
    for (const auto& line : lines) out << line << '\n';
}

void OnTerm(int) {
    int fd = open(termsPath.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd >= 0) {
        [[maybe_unused]] ssize_t written = write(fd, "TERM\n", 5);
        close(fd);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string self = argv[0];
    outDir = self + ".out/";
    std::string name = self.substr(self.rfind('/') + 1);
    Append("pids", std::to_string(getpid()));

    if (name.starts_with("probe")) {
        Record("argv", std::vector<std::string>(argv, argv + argc));
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
        Record("env", env);
        DIR* fds = opendir("/proc/self/fd");
        std::vector<std::string> descriptors;
        while (dirent* entry = readdir(fds)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(fds)) {
                descriptors.emplace_back(entry->d_name);
            }
        }
        closedir(fds);
        Record("fds", descriptors);
        std::vector<std::string> groups;
        std::ifstream cgroup("/proc/self/cgroup");
        for (std::string line; std::getline(cgroup, line);) groups.push_back(line);
        Record("cgroup", groups);
        return 0;
    }
    if (name.starts_with("hog")) {
        // "++group=tessard-plugins,mem=M": allocate and touch 2*M MiB.
        const char* mem = argc > 1 ? std::strstr(argv[1], "mem=") : nullptr;
        size_t mb = mem ? std::strtoul(mem + 4, nullptr, 10) : 40;
        size_t bytes = 2 * mb * 1024 * 1024;
        auto* block = static_cast<char*>(std::malloc(bytes));
        for (size_t i = 0; block && i < bytes; i += 4096) block[i] = 1;
        Append("survived", "yes");
        return 0;
    }
    if (name.starts_with("sleeper")) {
        termsPath = outDir + "terms";
        struct sigaction action {};
        action.sa_handler = OnTerm;
        sigaction(SIGTERM, &action, nullptr);
        for (;;) pause();
    }
    return 2;
}
