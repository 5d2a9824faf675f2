#include "platform/threads/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/exceptions.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using Pelinor::InvalidArgumentException;
using Pelinor::Ref;
using Pelinor::Service::LogLevel;
using Pelinor::System::ParseTimeScale;
using Pelinor::System::ScheduledItem;
using Pelinor::System::Scheduler;

// What the callbacks did, and on which thread, in the order they did it.
struct Journal {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> entries;
    std::vector<std::thread::id> threads;

    void Add(int entry) {
        std::lock_guard lock(mutex);
        entries.push_back(entry);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    bool WaitFor(size_t count) {  // the limit is only reached when something is broken
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 30s, [&] { return entries.size() >= count; });
    }
};

TEST(Scheduler, RunsCallbacksInDelayOrderOneAtATimeOnItsOwnThread) {
    TessardTest::LogCapture log;
    Journal journal;
    std::atomic<int> running{0}, overlaps{0};
    auto token = std::make_shared<int>(0);
    std::vector<Ref<ScheduledItem>> items(13);
    auto scheduler = Scheduler::Create(1);  // declared last: it stops before the rest goes
    auto record = [&](int entry) {
        return [&, entry](ScheduledItem*) {
            if (running.fetch_add(1) != 0) ++overlaps;
            std::this_thread::sleep_for(5ms);  // long enough for a second thread to overlap
            journal.Add(entry);
            running.fetch_sub(1);
        };
    };
    const int64_t delaysMs[] = {200, 50, 150, 0, 100};
    for (int i = 0; i < 5; ++i) scheduler->Schedule(record(i), delaysMs[i] * 1000, items[i]);
    for (int i = 5; i < 8; ++i) scheduler->Schedule(record(i), 250'000, items[i]);  // due together
    // Cancelled callbacks would show among the first five entries.
    scheduler->Schedule([&, token](ScheduledItem*) { journal.Add(-1); }, 60'000, items[8]);
    items[8]->Cancel();
    EXPECT_EQ(token.use_count(), 1) << "a cancelled callback's captures go at once";
    scheduler->Schedule([&](ScheduledItem*) { journal.Add(-2); }, 120'000, items[9]);
    scheduler->Schedule(
        [&](ScheduledItem* self) {
            EXPECT_EQ(self, items[10].Get());
            items[9]->Cancel();
        },
        0, items[10]);
    scheduler->Schedule([](ScheduledItem*) { throw std::runtime_error("disk gone"); }, 0,
                        items[11]);
    scheduler->Schedule([](ScheduledItem*) { throw 42; }, 0, items[12]);

    ASSERT_TRUE(journal.WaitFor(8));
    items[10]->Cancel();  // after it ran: nothing to drop
    EXPECT_EQ(std::vector<int>(journal.entries.begin(), journal.entries.begin() + 5),
              (std::vector<int>{3, 1, 4, 2, 0}));
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_NE(journal.threads.front(), std::this_thread::get_id());
    for (auto id : journal.threads) EXPECT_EQ(id, journal.threads.front());
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed: disk gone"));
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed with an unknown exception"));
}

TEST(Scheduler, DestructionDropsPendingCallbacksAndTimeScalesMustBePositive) {
    auto token = std::make_shared<int>(0);
    std::atomic<int> ran{0};
    {
        auto scheduler = Scheduler::Create(1);
        Ref<ScheduledItem> hour, forever;
        scheduler->Schedule([&, token](ScheduledItem*) { ++ran; }, 3'600'000'000, hour);
        // A deadline beyond the clock's range must not wrap into the past.
        scheduler->Schedule([&](ScheduledItem*) { ++ran; }, std::numeric_limits<int64_t>::max(),
                            forever);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(token.use_count(), 1);

    EXPECT_THROW(Scheduler::Create(0), InvalidArgumentException);
    EXPECT_EQ(ParseTimeScale(nullptr), 1);
    EXPECT_EQ(ParseTimeScale("250"), 250);
    for (const char* bad :
         {"", "abc", "0", "-3", "12x", " 5", "+5", "1.5", "99999999999999999999"}) {
        try {
            ParseTimeScale(bad);
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const InvalidArgumentException& e) {
            EXPECT_EQ(e.what(), "TESSARD_TIME_SCALE must be a positive integer, not '" +
                                    std::string(bad) + "'");
        }
    }
}

}  // namespace
