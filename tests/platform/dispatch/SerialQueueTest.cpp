#include "platform/dispatch/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/dispatch/WorkPool.h"

namespace bw {
namespace {

TEST(SerialQueueTest, TasksFromManyThreadsRunOneAtATimeInEachProducersOrder) {
    SerialQueue queue("com.tallowfields.BrightwaveRecord.test");
    constexpr int kProducers = 4;
    constexpr int kTasks = 2000;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::vector<int>> seen(kProducers);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kTasks; ++i) {
                auto task = [&, p, i] {
                    if (running.fetch_add(1) != 0) {
                        overlapped = true;
                    }
                    seen[p].push_back(i);  // unsynchronised on purpose: the queue is the lock
                    running.fetch_sub(1);
                };
                // Odd producers sync: run in place on an idle queue, still one at a time.
                if (p % 2 == 0) {
                    queue.async(task);
                } else {
                    queue.sync(task);
                }
            }
        });
    }
    for (auto& t : producers) {
        t.join();
    }
    queue.sync([] {});
    EXPECT_FALSE(overlapped);
    for (int p = 0; p < kProducers; ++p) {
        ASSERT_EQ(seen[p].size(), std::size_t(kTasks));
        for (int i = 0; i < kTasks; ++i) {
            ASSERT_EQ(seen[p][i], i) << "producer " << p;
        }
    }
}

// A sync from the queue's own task runs in place, still current there, instead of deadlocking.
TEST(SerialQueueTest, IsCurrentOnlyOnItsOwnThreadWhereSyncRunsInPlace) {
    SerialQueue a("com.tallowfields.BrightwaveRecord.a");
    SerialQueue b("com.tallowfields.BrightwaveRecord.b");
    EXPECT_FALSE(a.isCurrent());
    std::vector<int> order;
    a.sync([&] {
        order.push_back(1);
        a.sync([&] { order.push_back(a.isCurrent() && SerialQueue::current() == &a ? 2 : -2); });
        order.push_back(b.isCurrent() ? -3 : 3);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(a.label(), "com.tallowfields.BrightwaveRecord.a");
}

TEST(SerialQueueTest, DestructionRunsEveryQueuedTaskFirst) {
    std::atomic<int> done{0};
    {
        SerialQueue queue("com.tallowfields.BrightwaveRecord.test");
        queue.async([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
        for (int i = 0; i < 50; ++i) {
            queue.async([&] { done.fetch_add(1); });
        }
    }
    EXPECT_EQ(done.load(), 50);
}

TEST(SerialQueueTest, LastOwnerDroppingTheQueueFromItsOwnTaskDoesNotHang) {
    auto queue = std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.test");
    SerialQueue* raw = queue.get();
    std::promise<void> finished;
    raw->async([owner = std::move(queue), &finished]() mutable {
        owner.reset();
        finished.set_value();
    });
    EXPECT_EQ(finished.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

TEST(WorkPoolTest, RunsWorkOffTheCallingThread) {
    std::promise<std::thread::id> ran;
    WorkPool::shared().async([&] { ran.set_value(std::this_thread::get_id()); });
    auto future = ran.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_NE(future.get(), std::this_thread::get_id());
}

}  // namespace
}  // namespace bw
