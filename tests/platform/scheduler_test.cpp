#include "platform/threads/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
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

TEST(Scheduler, RunsCallbacksInDelayOrderOneAtATimeOnItsOwnThreadAndDropsThemWhenDestroyed) {
    TessardTest::LogCapture log;
    std::mutex mutex;
    std::vector<int> order;
    std::set<std::thread::id> threads;
    std::promise<void> allRan;
    auto token = std::make_shared<int>(0);
    std::vector<Ref<ScheduledItem>> items(13);
    auto scheduler = Scheduler::Create(1);  // declared last: it stops before the rest goes
    auto record = [&](int entry) {
        return [&, entry](ScheduledItem*) {
            std::this_thread::sleep_for(5ms);  // long enough for a second thread to take the next
            std::lock_guard lock(mutex);
            order.push_back(entry);
            threads.insert(std::this_thread::get_id());
            if (order.size() == 8) allRan.set_value();
        };
    };
    const int64_t delaysMs[] = {200, 50, 150, 0, 100, 250, 250, 250};  // the last three together
    for (int i = 0; i < 8; ++i) scheduler->Schedule(record(i), delaysMs[i] * 1000, items[i]);
    // Cancelled callbacks would show in the order.
    scheduler->Schedule([&, token](ScheduledItem*) { order.push_back(-1); }, 60'000, items[8]);
    items[8]->Cancel();
    EXPECT_EQ(token.use_count(), 1) << "a cancelled callback's captures go at once";
    scheduler->Schedule([&](ScheduledItem*) { order.push_back(-2); }, 120'000, items[9]);
    scheduler->Schedule(
        [&](ScheduledItem* self) {
            EXPECT_EQ(self, items[10].Get());
            items[9]->Cancel();
        },
        0, items[10]);
    scheduler->Schedule([](ScheduledItem*) { throw std::runtime_error("disk gone"); }, 0,
                        items[11]);
    scheduler->Schedule([](ScheduledItem*) { throw 42; }, 0, items[12]);

    ASSERT_EQ(allRan.get_future().wait_for(30s), std::future_status::ready);
    items[10]->Cancel();  // after it ran: nothing to drop
    EXPECT_EQ(std::vector<int>(order.begin(), order.begin() + 5),
              (std::vector<int>{3, 1, 4, 2, 0}));
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed: disk gone"));
    EXPECT_TRUE(log.Has(LogLevel::Error, "A scheduled callback failed with an unknown exception"));

    // Destruction drops pending callbacks, and a deadline beyond the clock's range must not
    // wrap into the past.
    std::atomic<int> ran{0};
    {
        Ref<ScheduledItem> hour, forever;
        scheduler->Schedule([&, token](ScheduledItem*) { ++ran; }, 3'600'000'000, hour);
        scheduler->Schedule([&](ScheduledItem*) { ++ran; }, std::numeric_limits<int64_t>::max(),
                            forever);
        std::this_thread::sleep_for(20ms);
        scheduler = nullptr;
    }
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(token.use_count(), 1);

    // Time scales, of the scheduler and of TESSARD_TIME_SCALE, are positive.
    EXPECT_THROW(Scheduler::Create(0), InvalidArgumentException);
    EXPECT_EQ(ParseTimeScale(nullptr), 1);
    EXPECT_EQ(ParseTimeScale("250"), 250);
    for (std::string bad : {"", "0", "-3", "12x", " 5", "+5", "99999999999999999999"}) {
        try {
            ParseTimeScale(bad.c_str());
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const InvalidArgumentException& e) {
            EXPECT_EQ(e.what(), "TESSARD_TIME_SCALE must be a positive integer, not '" + bad + "'");
        }
    }
}

}  // namespace
