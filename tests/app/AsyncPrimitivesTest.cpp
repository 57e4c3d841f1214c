#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <thread>

#include "app/MainThread.h"
#include "app/OffMainThread.h"
#include "app/SystemClock.h"
#include "app/TaskHandle.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

QCoro::Task<void> waitAndRecord(SharedResult<QString> result, std::vector<QString>* seen) {
    seen->push_back(co_await result);
}

TEST(AsyncPrimitivesTest, EveryWaiterOfASharedResultGetsItsOwnCopyInOrder) {
    SharedResult<QString> result;
    std::vector<QString> seen;
    auto first = waitAndRecord(result, &seen);
    auto second = waitAndRecord(result, &seen);
    EXPECT_TRUE(seen.empty());
    result.set("file.m4a");
    result.set("ignored");
    auto late = waitAndRecord(result, &seen);  // after the value: no suspension
    EXPECT_EQ(seen, (std::vector<QString>{"file.m4a", "file.m4a", "file.m4a"}));
}

TEST(AsyncPrimitivesTest, PostedWorkRunsOnTheMainThreadInTheOrderOfEachPoster) {
    std::vector<std::pair<int, int>> ran;
    bool allOnMain = true;
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 4; ++poster) {
        posters.emplace_back([&, poster] {
            for (int i = 0; i < 50; ++i) {
                MainThread::post([&, poster, i] {
                    allOnMain = allOnMain && MainThread::isCurrent();
                    ran.emplace_back(poster, i);
                });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(pumpUntil([&] { return ran.size() == 200; }));
    EXPECT_TRUE(allOnMain);
    std::vector<int> next(4, 0);
    for (const auto& [poster, i] : ran) {
        EXPECT_EQ(i, next[poster]++);
    }
}

TEST(AsyncPrimitivesTest, WorkOffTheMainThreadResumesOnIt) {
    auto where = [] { return MainThread::isCurrent(); };
    const auto task = [&]() -> QCoro::Task<std::pair<bool, bool>> {
        const bool workOnMain = co_await runOffMainThread(std::move(where));
        co_return std::pair{workOnMain, MainThread::isCurrent()};
    };
    EXPECT_EQ(QCoro::waitFor(task()), (std::pair{false, true}));
}

QCoro::Task<void> sleepFor(std::chrono::milliseconds duration, CancellationToken cancellation,
                           bool* slept) {
    *slept = co_await SystemClock::shared()->sleep(duration, cancellation);
}

TEST(AsyncPrimitivesTest, RealSleepsEndOnTimeOrAtOnceWhenCancelled) {
    QElapsedTimer elapsed;
    elapsed.start();
    bool slept = false;
    QCoro::waitFor(sleepFor(30ms, nullptr, &slept));
    EXPECT_TRUE(slept);
    EXPECT_GE(elapsed.elapsed(), 29);

    elapsed.restart();
    auto handle =
        TaskHandle::start([&](CancellationToken token) { return sleepFor(10s, token, &slept); });
    EXPECT_FALSE(handle.isFinished());
    handle.cancel();
    EXPECT_TRUE(handle.isFinished());  // woken inside cancel()
    EXPECT_FALSE(slept);
    EXPECT_LT(elapsed.elapsed(), 1000);

    auto cancelled = std::make_shared<TaskCancellation>();
    cancelled->cancel();
    slept = true;
    auto immediate = sleepFor(10s, cancelled, &slept);
    EXPECT_TRUE(immediate.isReady());
    EXPECT_FALSE(slept);
}

}  // namespace
}  // namespace bw::test
