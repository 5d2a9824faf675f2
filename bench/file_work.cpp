// The bare file work of one stored report, without any HTTP: create a temporary file, write
// the body, close, rename it onto its ring slot, and replace the link to the newest. Prints
// the CPU time per report, the share of the floor that is not the HTTP server's.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr size_t kStreamBuffer = 64 * 1024;

double CpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: file_work DIR BODY_BYTES NAMES ITERATIONS\n");
        return 2;
    }
    std::string dir = argv[1];
    size_t size = std::strtoul(argv[2], nullptr, 10);
    int names = std::atoi(argv[3]);
    int iterations = std::atoi(argv[4]);
    std::vector<char> body(size, 'x');
    double start = CpuSeconds();
    for (int i = 0; i < iterations; ++i) {
        std::string name = dir + "/w" + std::to_string(i % names);
        std::string slot = std::to_string((i / names) % 3);
        std::string temporary = dir + "/.w" + std::to_string(i % names) + "-" + slot + ".json";
        int fd =
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0) return 1;
        for (size_t done = 0; done < size; done += kStreamBuffer) {
            size_t n = size - done < kStreamBuffer ? size - done : kStreamBuffer;
            if (::write(fd, body.data() + done, n) != static_cast<ssize_t>(n)) return 1;
        }
        ::close(fd);
        std::string report = name + "-" + slot + ".json";
        if (::rename(temporary.c_str(), report.c_str()) != 0) return 1;
        std::string link = name + ".json";
        std::string linkTemporary = dir + "/.w" + std::to_string(i % names) + ".json.lnk";
        struct stat st;
        ::lstat(link.c_str(), &st);
        std::string target = "w" + std::to_string(i % names) + "-" + slot + ".json";
        if (::symlink(target.c_str(), linkTemporary.c_str()) != 0) return 1;
        if (::rename(linkTemporary.c_str(), link.c_str()) != 0) return 1;
    }
    std::printf("%.3f\n", (CpuSeconds() - start) / iterations * 1e6);
    return 0;
}
