#include "platform/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using Pelinor::Ref;
using Pelinor::Service::LogLevel;
using Pelinor::System::ParseTimeScale;
using Pelinor::System::ScheduledItem;
using Pelinor::System::Scheduler;

constexpr auto kPatience = 30s;  // only ever waited out when something is broken

// What the callbacks did, in the order they did it.
class Journal {
  public:
    void Add(int entry) {
        std::lock_guard lock(mutex);
        entries.push_back(entry);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    bool WaitForCount(size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kPatience, [&] { return entries.size() >= count; });
    }
    std::vector<int> Entries() {
        std::lock_guard lock(mutex);
        return entries;
    }
    std::vector<std::thread::id> Threads() {
        std::lock_guard lock(mutex);
        return threads;
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> entries;
    std::vector<std::thread::id> threads;
};

TEST(Scheduler, RunsCallbacksInDelayOrderOneAtATimeOnItsOwnThread) {
    auto scheduler = Scheduler::Create(1);
    Journal journal;
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    std::vector<Ref<ScheduledItem>> items(8);
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
    for (int i = 5; i < 8; ++i)
        scheduler->Schedule(record(i), 250'000, items[i]);  // all due together

    ASSERT_TRUE(journal.WaitForCount(8));
    auto entries = journal.Entries();
    EXPECT_EQ(std::vector<int>(entries.begin(), entries.begin() + 5),
              (std::vector<int>{3, 1, 4, 2, 0}));
    EXPECT_EQ(overlaps.load(), 0);
    auto threads = journal.Threads();
    EXPECT_NE(threads.front(), std::this_thread::get_id());
    for (auto id : threads) EXPECT_EQ(id, threads.front());
}

TEST(Scheduler, CancelDropsThePendingCallbackAndReleasesItsCaptures) {
    auto scheduler = Scheduler::Create(1);
    Journal journal;
    auto token = std::make_shared<int>(0);
    Ref<ScheduledItem> cancelled;
    Ref<ScheduledItem> cancelledByCallback;
    Ref<ScheduledItem> canceller;
    Ref<ScheduledItem> last;

    scheduler->Schedule([&, token](ScheduledItem*) { journal.Add(1); }, 50'000, cancelled);
    cancelled->Cancel();
    EXPECT_EQ(token.use_count(), 1) << "a cancelled callback's captures are released at once";
    scheduler->Schedule([&](ScheduledItem*) { journal.Add(2); }, 100'000, cancelledByCallback);
    scheduler->Schedule(
        [&](ScheduledItem* self) {
            EXPECT_EQ(self, canceller.Get());
            cancelledByCallback->Cancel();
            journal.Add(3);
        },
        0, canceller);
    scheduler->Schedule([&](ScheduledItem*) { journal.Add(4); }, 200'000, last);

    ASSERT_TRUE(journal.WaitForCount(2));
    canceller->Cancel();  // after it ran: nothing to drop
    EXPECT_EQ(journal.Entries(), (std::vector<int>{3, 4}));
}

TEST(Scheduler, LogsACallbackThatThrowsAndCarriesOn) {
    TessardTest::LogCapture log;
    auto scheduler = Scheduler::Create(1);
    Journal journal;
    Ref<ScheduledItem> items[3];
    scheduler->Schedule([](ScheduledItem*) { throw std::runtime_error("disk gone"); }, 0, items[0]);
    scheduler->Schedule([](ScheduledItem*) { throw 42; }, 10'000, items[1]);
    scheduler->Schedule([&](ScheduledItem*) { journal.Add(1); }, 20'000, items[2]);

    ASSERT_TRUE(journal.WaitForCount(1));
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed: disk gone"));
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed with an unknown exception"));
}

TEST(Scheduler, DestructionDropsPendingCallbacksAndTimeScaleShortensDelays) {
    auto token = std::make_shared<int>(0);
    std::atomic<int> ran{0};
    {
        auto scheduler = Scheduler::Create(1);
        Ref<ScheduledItem> hour;
        Ref<ScheduledItem> forever;
        scheduler->Schedule([&, token](ScheduledItem*) { ++ran; }, 3'600'000'000, hour);
        // A deadline beyond the clock's range must not wrap into the past.
        scheduler->Schedule([&](ScheduledItem*) { ++ran; }, std::numeric_limits<int64_t>::max(),
                            forever);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(token.use_count(), 1);

    // An hour at a millionth is 3.6 ms; unscaled, the wait below would give up first.
    auto fast = Scheduler::Create(1'000'000);
    Journal journal;
    Ref<ScheduledItem> hour;
    fast->Schedule([&](ScheduledItem*) { journal.Add(1); }, 3'600'000'000, hour);
    EXPECT_TRUE(journal.WaitForCount(1));

    EXPECT_THROW(Scheduler::Create(0), Pelinor::InvalidArgumentException);
}

TEST(Scheduler, DefaultInstanceRunsOnTheRealScheduler) {
    Journal journal;
    Ref<ScheduledItem> item;
    Scheduler::sInstance->Schedule([&](ScheduledItem*) { journal.Add(1); }, 0, item);
    ASSERT_TRUE(journal.WaitForCount(1));
    EXPECT_NE(journal.Threads().front(), std::this_thread::get_id());
}

TEST(Scheduler, TimeScaleMustBeAPositiveInteger) {
    EXPECT_EQ(ParseTimeScale(nullptr), 1);
    EXPECT_EQ(ParseTimeScale("1"), 1);
    EXPECT_EQ(ParseTimeScale("250"), 250);
    for (const char* bad :
         {"", "abc", "0", "-3", "12x", " 5", "+5", "1.5", "99999999999999999999"}) {
        EXPECT_THROW(ParseTimeScale(bad), Pelinor::InvalidArgumentException) << "'" << bad << "'";
    }
    try {
        ParseTimeScale("abc");
    } catch (const Pelinor::InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "TESSARD_TIME_SCALE must be a positive integer, not 'abc'");
    }
}

}  // namespace
