// A stand-in plugin for end-to-end tests. What it does depends on the name it was
// started under; it writes its findings next to itself, in <argv[0]>.out/.
//   probe*   records its environment, open descriptors, cgroups, the memory
//            cap of its group (cgroup v1) and its status (credentials, blocked and ignored
//            signals)
//   hog*     touches twice the memory its group argument allows
//   sleeper* counts every SIGTERM it receives and keeps running
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    const std::string self = argv[0], out = self + ".out/", name = self.substr(self.rfind('/') + 1);
    std::ofstream(out + "pids", std::ios::app) << getpid() << '\n';

    if (name.starts_with("probe")) {
        // Each run replaces the previous run's record. Descriptors first: recording opens more.
        std::string fds;
        for (int fd = 0; fd < sysconf(_SC_OPEN_MAX); ++fd)
            if (fcntl(fd, F_GETFD) != -1) fds += std::to_string(fd) + '\n';
        std::ofstream(out + "fds") << fds;
        std::ofstream(out + "env") << std::ifstream("/proc/self/environ").rdbuf();
        std::ofstream(out + "cgroup") << std::ifstream("/proc/self/cgroup").rdbuf();
        std::ofstream(out + "status") << std::ifstream("/proc/self/status").rdbuf();
        std::ifstream groups("/proc/self/cgroup");
        for (std::string line; std::getline(groups, line);)
            if (size_t at = line.find(":memory:"); at != std::string::npos)
                std::ofstream(out + "limit")
                    << std::ifstream("/sys/fs/cgroup/memory" + line.substr(at + 8) +
                                     "/memory.limit_in_bytes")
                           .rdbuf();
        return 0;
    }
    if (name.starts_with("hog")) {
        // "++group=tessard-plugins,mem=M": allocate and touch 2*M MiB.
        const char* mem = argc > 1 ? std::strstr(argv[1], "mem=") : nullptr;
        size_t bytes = 2 * (mem ? std::strtoul(mem + 4, nullptr, 10) : 40) * 1024 * 1024;
        auto* block = static_cast<char*>(std::malloc(bytes));
        for (size_t i = 0; block && i < bytes; i += 4096) block[i] = 1;
        return 0;
    }
    if (name.starts_with("sleeper")) {
        ::signal(SIGTERM, [](int) {});  // handled, so pause() returns
        for (;;) {
            pause();
            std::ofstream(out + "terms", std::ios::app) << "TERM\n";
        }
    }
    return 2;
}
