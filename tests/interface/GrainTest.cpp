#include <gtest/gtest.h>

#include <QApplication>
#include <QSignalSpy>
#include <QTest>
#include <cmath>
#include <limits>
#include <set>
#include <thread>

#include "interface/GrainOverlay.h"
#include "interface/GrainPixels.h"
#include "interface/GrainTextureCache.h"
#include "interface/SplitMix64.h"

namespace bw {
namespace {

struct Speck {
    int x;
    int y;
    int alpha;
    friend bool operator==(const Speck&, const Speck&) = default;
};

std::vector<Speck> specksOf(const GrainPixels& pixels) {
    std::vector<Speck> specks;
    for (int y = 0; y < pixels.height; ++y) {
        for (int x = 0; x < pixels.width; ++x) {
            const auto* p = &pixels.bytes[static_cast<std::size_t>(y) * pixels.width * 4 + x * 4];
            if (p[3] != 0) {
                EXPECT_TRUE(p[0] == 255 && p[1] == 255 && p[2] == 255) << "specks are white";
                specks.push_back({x, y, p[3]});
            }
        }
    }
    return specks;
}

TEST(SplitMix64Test, SixtyFourBitDrawRejectsExactlyTheLowHalvesBelowTheThreshold) {
    struct Case {
        const char* what;
        std::uint64_t n;
        std::vector<std::uint64_t> outputs;
        std::uint64_t expected;
        std::size_t used;
    };
    const std::uint64_t half = 1ull << 63;
    const std::vector<Case> cases = {
        // n = 3: threshold (2^64 - 3) mod 3 = 1, so only a product with low half 0 is refused.
        {"n 3, zero output refused", 3, {0, half}, 1, 2},
        {"n 3, first output taken", 3, {half}, 1, 1},
        {"n 3, top output", 3, {~0ull}, 2, 1},
        // n = 6: threshold 4; 2^63 × 6 has low half 0, refused; 1 × 6 = 6 ≥ 4 is taken.
        {"n 6, refused then taken", 6, {half, 1}, 0, 2},
        // Low halves 2 (below the threshold 4) and 4 (below n, not below the threshold).
        {"n 6, low 2 refused, low 4 taken",
         6,
         {0x2AAAAAAAAAAAAAABull, 0x5555555555555556ull},
         2,
         2},
        // n = 1: threshold 0, nothing is refused and the result is always 0.
        {"n 1", 1, {0}, 0, 1},
        // A power of two: threshold 0, the result is the top bits.
        {"n 8", 8, {0xF000000000000000ull}, 7, 1},
    };
    for (const auto& c : cases) {
        std::size_t used = 0;
        const auto result = SplitMix64::uniformBelow(c.n, [&] { return c.outputs.at(used++); });
        EXPECT_EQ(result, c.expected) << c.what;
        EXPECT_EQ(used, c.used) << c.what;
    }
}

// Expected specks computed by an independent implementation of the draws.
TEST(GrainPixelsTest, SmallSizesPlaceTheSpecksOfTheReferenceDraws) {
    struct Case {
        int width;
        int height;
        std::vector<Speck> specks;  // in row order
    };
    const std::vector<Case> cases = {
        {1, 1, {{0, 0, 181}}},
        {17, 1, {{10, 0, 88}}},
        {18, 1, {{4, 0, 139}}},
        {6, 6, {{5, 1, 174}, {0, 3, 72}}},
        {3, 12, {{1, 9, 195}, {2, 11, 156}}},
        {12, 3, {{9, 0, 75}, {1, 2, 145}}},
        {9, 4, {{0, 0, 210}, {3, 1, 139}}},
    };
    for (const auto& c : cases) {
        const auto pixels = GrainPixels::make(c.width, c.height);
        ASSERT_TRUE(pixels);
        ASSERT_EQ(pixels->bytes.size(), static_cast<std::size_t>(c.width * c.height * 4));
        EXPECT_EQ(specksOf(*pixels), c.specks) << c.width << "x" << c.height;
    }
}

TEST(GrainPixelsTest, SizesWithoutPixelsOrBeyondTheLimitGiveNothing) {
    const std::vector<std::pair<int, int>> sizes = {
        {0, 5}, {5, 0}, {-1, 3}, {std::numeric_limits<int>::max(), 2}, {40000, 40000}};
    for (const auto& [width, height] : sizes) {
        EXPECT_FALSE(GrainPixels::make(width, height)) << width << "x" << height;
    }
}

// The cache's images (bytes, straight alpha) are the console pictures' to judge.
TEST(GrainTextureCacheTest, PointSizesBecomePixelSizes) {
    struct Case {
        double width;
        double height;
        double scale;
        std::optional<GrainTextureKey> key;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<Case> cases = {
        {0, 0, 2, GrainTextureKey{1, 1}},
        {640, 560, 2, GrainTextureKey{1280, 1120}},
        {1280, 1120, 1, GrainTextureKey{1280, 1120}},
        {100.2, 10, 2, GrainTextureKey{201, 20}},
        {0.1, 0.1, 1, GrainTextureKey{1, 1}},
        {-5, 3, 1, GrainTextureKey{1, 3}},
        {inf, 10, 1, std::nullopt},
        {10, nan, 1, std::nullopt},
        {10, 10, inf, std::nullopt},
        {1e12, 10, 1, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GrainTextureCache::keyFor(c.width, c.height, c.scale), c.key)
            << c.width << "x" << c.height << "@" << c.scale;
    }
}

TEST(GrainTextureCacheTest, EqualPixelSizesShareOneEntryAndFailedSizesStoreNothing) {
    GrainTextureCache cache;
    EXPECT_FALSE(cache.imageBlocking(std::numeric_limits<double>::quiet_NaN(), 10, 1));
    EXPECT_FALSE(cache.imageBlocking(40000, 40000, 1));  // too large to be made
    const auto a = cache.imageBlocking(640, 560, 2);
    const auto b = cache.imageBlocking(1280, 1120, 1);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->cacheKey(), b->cacheKey());
    EXPECT_EQ(cache.keysBlocking(), (std::vector<GrainTextureKey>{{1280, 1120}}));
}

TEST(GrainTextureCacheTest, TheSeventeenthSizeStartsTheCacheAfresh) {
    GrainTextureCache cache;
    for (int i = 1; i <= 16; ++i) {
        ASSERT_TRUE(cache.imageBlocking(i, 3, 1));
    }
    EXPECT_EQ(cache.keysBlocking().size(), 16u);
    // A size already held doesn't count as new.
    ASSERT_TRUE(cache.imageBlocking(5, 3, 1));
    EXPECT_EQ(cache.keysBlocking().size(), 16u);

    ASSERT_TRUE(cache.imageBlocking(17, 3, 1));
    EXPECT_EQ(cache.keysBlocking(), (std::vector<GrainTextureKey>{{17, 3}}));
}

TEST(GrainTextureCacheTest, RepliesArriveOnTheGuiThreadInRequestOrder) {
    GrainTextureCache cache;
    std::vector<QSize> sizes;
    std::vector<bool> onGuiThread;
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<std::tuple<double, double, double>> requests = {
        {10, 20, 1}, {inf, 1, 1}, {30, 5, 2}, {10, 20, 1}};
    for (const auto& [w, h, s] : requests) {
        cache.request(w, h, s, [&](std::optional<QImage> image) {
            onGuiThread.push_back(QThread::currentThread() == qApp->thread());
            sizes.push_back(image ? image->size() : QSize());
        });
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return sizes.size() == requests.size(); }, 5000));
    EXPECT_EQ(sizes, (std::vector<QSize>{QSize(10, 20), QSize(), QSize(60, 10), QSize(10, 20)}));
    EXPECT_EQ(onGuiThread, std::vector<bool>(4, true));
}

TEST(GrainTextureCacheTest, ManyCallersAtOnceGetOneImagePerSize) {
    GrainTextureCache cache;
    constexpr int kRounds = 25;
    std::vector<std::vector<qint64>> seen(4);
    std::vector<std::thread> threads;
    for (auto& keys : seen) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const auto image = cache.imageBlocking(50 + round % 5, 40, 1);
                keys.push_back(image ? image->cacheKey() : 0);
            }
        });
    }
    int replies = 0;
    for (int round = 0; round < kRounds; ++round) {
        cache.request(50 + round % 5, 40, 1, [&](std::optional<QImage>) { ++replies; });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return replies == kRounds; }, 5000));
    std::set<qint64> distinct;
    for (const auto& keys : seen) {
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_EQ(keys[round], seen[0][round % 5]) << "size " << 50 + round % 5;
            distinct.insert(keys[round]);
        }
    }
    EXPECT_FALSE(distinct.contains(0));
    EXPECT_EQ(distinct.size(), 5u);
    EXPECT_EQ(cache.keysBlocking().size(), 5u);
}

TEST(GrainTextureCacheTest, RequestsAfterShutDownAreDropped) {
    GrainTextureCache cache;
    cache.shutDown();
    bool replied = false;
    cache.request(10, 10, 1, [&](std::optional<QImage>) { replied = true; });
    EXPECT_FALSE(cache.imageBlocking(10, 10, 1));
    QCoreApplication::processEvents();
    EXPECT_FALSE(replied);
}

TEST(GrainOverlayTest, LoadingKeysUseShortestNumbersWithAFraction) {
    struct Case {
        QSizeF size;
        double scale;
        const char* key;
    };
    const std::vector<Case> cases = {
        {{640, 560}, 2, "640.0x560.0@2.0"},
        {{100.2, 50}, 1, "100.2x50.0@1.0"},
        {{0, 0}, 1.25, "0.0x0.0@1.25"},
        {{0.1, 1.0 / 3.0}, 1.5, "0.1x0.3333333333333333@1.5"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GrainOverlay::loadingKey(c.size, c.scale), QString::fromLatin1(c.key));
    }
}

TEST(GrainOverlayTest, ANewSizeReplacesTheAnswerOfTheOldOne) {
    GrainTextureCache cache;
    GrainOverlay overlay(0.14, &cache);
    QSignalSpy changed(&overlay, &GrainOverlay::textureChanged);
    overlay.updateSize({40, 30}, 1);
    overlay.updateSize({40, 30}, 1);  // same key: no new request
    overlay.updateSize({25, 10}, 2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !changed.isEmpty(); }, 5000));
    QCoreApplication::processEvents();
    EXPECT_EQ(changed.size(), 1);
    EXPECT_EQ(overlay.currentKey(), QString("25.0x10.0@2.0"));
    ASSERT_TRUE(overlay.texture());
    EXPECT_EQ(overlay.texture()->size(), QSize(50, 20));
    EXPECT_EQ(cache.keysBlocking().size(), 2u);  // the old size was still made, only ignored

    overlay.updateSize({std::numeric_limits<double>::infinity(), 10}, 1);
    ASSERT_TRUE(changed.wait(5000));
    EXPECT_FALSE(overlay.texture());  // a failed size loses the old image
}

}  // namespace
}  // namespace bw
