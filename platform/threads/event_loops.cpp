#include "platform/threads/event_loops.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <fstream>
#include <string>
#include <thread>

#include "platform/base/format.h"
#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

constexpr size_t kMaxThreadName = 15;

thread_local net::io_context* tCurrent = nullptr;

// CPUs a "quota period" pair allows, rounded up; none for "max" or anything unreadable.
std::optional<size_t> QuotaCpus(std::string_view quota, std::string_view period) {
    int64_t q = 0, p = 0;
    if (!ParseWhole(quota, q) || !ParseWhole(period, p) || q <= 0 || p <= 0) return std::nullopt;
    return static_cast<size_t>((q + p - 1) / p);
}

// The tightest CPU quota on the way from the daemon's cgroup up to the root: cgroup v2's
// cpu.max, or v1's cfs quota of the cpu controller's group.
std::optional<size_t> CgroupCpus() {
    std::ifstream groups("/proc/self/cgroup");
    std::optional<size_t> tightest;
    for (std::string line; std::getline(groups, line);) {
        auto first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) continue;
        std::string controllers(",");
        controllers.append(line, first + 1, second - first - 1).append(",");
        std::string path = line.substr(second + 1);
        bool v2 = line.starts_with("0::");
        if (!v2 && controllers.find(",cpu,") == std::string::npos) continue;
        for (;;) {
            std::optional<size_t> cpus;
            std::string q, p;
            if (v2) {
                std::ifstream(std::string(Cgroup::kUnifiedMount) + path + "/cpu.max") >> q >> p;
            } else {
                std::string group = std::string(Cgroup::kUnifiedMount) + "/cpu" + path;
                std::ifstream(group + "/cpu.cfs_quota_us") >> q;
                std::ifstream(group + "/cpu.cfs_period_us") >> p;
            }
            if ((cpus = QuotaCpus(q, p)) && (!tightest || *cpus < *tightest)) tightest = cpus;
            if (!v2 || path.size() <= 1) break;
            path.resize(std::max<size_t>(path.rfind('/'), 1));
        }
    }
    return tightest;
}

// How many CPUs the daemon may use: its affinity mask, lowered by its cgroup's CPU quota.
size_t UsableCpus() {
    cpu_set_t set;
    size_t cpus = ::sched_getaffinity(0, sizeof set, &set) == 0
                      ? CPU_COUNT(&set)
                      : std::thread::hardware_concurrency();
    if (auto quota = CgroupCpus()) cpus = std::min(cpus, *quota);
    return std::max<size_t>(cpus, 1);
}

}  // namespace

void NameThread(const char* name) {
    std::string cut(name, std::min(std::char_traits<char>::length(name), kMaxThreadName));
    ::pthread_setname_np(::pthread_self(), cut.c_str());
}

struct EventLoops::Loop {
    net::io_context context{1};
    net::executor_work_guard<Executor> guard{context.get_executor()};
    std::thread thread;
};

EventLoops& EventLoops::Get(size_t limit) {
    static EventLoops loops(
        std::min(std::max(UsableCpus(), kMinLoops), std::max<size_t>(limit, 1)));
    return loops;
}

EventLoops::EventLoops(size_t count) {
    for (size_t i = 0; i < count; ++i) loops.push_back(std::make_unique<Loop>());
    for (size_t i = 0; i < count; ++i) {
        loops[i]->thread = std::thread([context = &loops[i]->context, i] {
            NameThread(Format("tessard-http-%1", i).c_str());
            tCurrent = context;
            for (;;) {
                try {
                    context->run();
                    return;
                } catch (const std::exception& e) {
                    // One failed completion must not take every connection of the loop with it.
                    Log(Logger::sDefaultLogger, LogLevel::Error, "Event loop: %1", e.what());
                }
            }
        });
    }
}

EventLoops::~EventLoops() {
    for (auto& loop : loops) loop->guard.reset();
    for (auto& loop : loops) loop->context.stop();
    for (auto& loop : loops) loop->thread.join();
}

Executor EventLoops::At(size_t index) const {
    return loops[index]->context.get_executor();
}

std::optional<Executor> EventLoops::Current() {
    if (tCurrent == nullptr) return std::nullopt;
    return tCurrent->get_executor();
}

ScopedLoop::ScopedLoop(net::io_context& context) : previous(std::exchange(tCurrent, &context)) {}

ScopedLoop::~ScopedLoop() {
    tCurrent = previous;
}

}  // namespace Pelinor::System
