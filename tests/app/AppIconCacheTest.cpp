#include "app/AppIconCache.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <atomic>

#include "app/IconThemeLookup.h"
#include "tests/app/FakeTapProbe.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

/// Icons whose colour encodes the pid; a pid below 0 has no icon. Counts loads; can hold them.
struct FakeIcons : Gate {
    std::atomic<int> loads{0};
    std::atomic<bool> iconsExist{true};

    AppIconCache::Loader loader() {
        return [this](std::int32_t pid) -> std::optional<QImage> {
            ++loads;
            pass();
            if (pid < 0 || !iconsExist) {
                return std::nullopt;
            }
            QImage image(2, 2, QImage::Format_RGB32);
            image.fill(QColor::fromRgb(static_cast<QRgb>(pid)));
            return image;
        };
    }
};

QRgb colourOf(const std::optional<QImage>& image) {
    return image ? image->pixel(0, 0) & 0xffffff : 0xdeadbeef;
}

TEST(AppIconCacheTest, CallsForOneKeyWhileItLoadsShareOneLoad) {
    FakeIcons icons;
    AppIconCache cache(icons.loader());
    icons.hold();
    auto first = cache.icon("app:a|A", 7);
    auto second = cache.icon("app:a|A", 7);
    EXPECT_TRUE(cache.isLoading("app:a|A"));
    icons.release();
    EXPECT_EQ(colourOf(QCoro::waitFor(second)), 7u);
    EXPECT_EQ(colourOf(QCoro::waitFor(first)), 7u);
    EXPECT_EQ(icons.loads, 1);
    EXPECT_EQ(cache.count(), 1u);
    EXPECT_FALSE(cache.isLoading("app:a|A"));

    // The same pid under another key is another entry; a known key answers after the process ended.
    EXPECT_EQ(colourOf(QCoro::waitFor(cache.icon("app:a|A renamed", 7))), 7u);
    EXPECT_EQ(icons.loads, 2);
    icons.iconsExist = false;
    EXPECT_EQ(colourOf(QCoro::waitFor(cache.icon("app:a|A", 7))), 7u);
    EXPECT_EQ(icons.loads, 2);
}

TEST(AppIconCacheTest, NoIconLeavesNoTraceAndLoadsAgainNextTime) {
    FakeIcons icons;
    AppIconCache cache(icons.loader());
    EXPECT_FALSE(QCoro::waitFor(cache.icon("gone", -1)).has_value());
    EXPECT_FALSE(cache.contains("gone"));
    EXPECT_FALSE(cache.isLoading("gone"));
    EXPECT_TRUE(cache.insertionOrder().empty());
    EXPECT_FALSE(QCoro::waitFor(cache.icon("gone", -1)).has_value());
    EXPECT_EQ(icons.loads, 2);
}

TEST(AppIconCacheTest, TheHundredTwentyNinthIconEvictsTheFirstInsertedEvenIfJustRead) {
    FakeIcons icons;
    AppIconCache cache(icons.loader());
    for (int i = 1; i <= 128; ++i) {
        QCoro::waitFor(cache.icon(QString::number(i), i));
    }
    EXPECT_EQ(cache.count(), 128u);
    QCoro::waitFor(cache.icon("1", 1));  // a read renews nothing
    QCoro::waitFor(cache.icon("129", 129));
    EXPECT_EQ(cache.count(), 128u);
    EXPECT_FALSE(cache.contains("1"));
    EXPECT_EQ(cache.insertionOrder().front(), "2");
    EXPECT_EQ(cache.insertionOrder().back(), "129");
    QCoro::waitFor(cache.icon("130", 130));
    EXPECT_FALSE(cache.contains("2"));
    EXPECT_EQ(icons.loads, 130);
}

TEST(IconThemeLookupTest, FindsIconsByThemeOrderThenSizeThenPixmaps) {
    QTemporaryDir dir;
    const auto put = [&](const QString& path, int size) {
        QDir().mkpath(QFileInfo(dir.filePath(path)).path());
        QImage image(size, size, QImage::Format_ARGB32);
        image.fill(Qt::red);
        ASSERT_TRUE(image.save(dir.filePath(path), "PNG"));
    };
    put("icons/hicolor/16x16/apps/player.png", 16);
    put("icons/hicolor/64x64/apps/player.png", 64);
    put("icons/Custom/48x48/apps/editor.png", 48);
    put("icons/hicolor/64x64/apps/editor.png", 64);
    put("icons/hicolor/256x256/apps/big.png", 256);
    put("pixmaps/tool.png", 32);
    const IconThemeLookup lookup({"Custom", "hicolor"}, {dir.filePath("icons")},
                                 {dir.filePath("pixmaps")});
    const std::pair<QString, QString> cases[] = {
        {"player", "icons/hicolor/64x64/apps/player.png"},
        {"player.png", "icons/hicolor/64x64/apps/player.png"},
        {"editor", "icons/Custom/48x48/apps/editor.png"},
        {"tool", "pixmaps/tool.png"},
        {dir.filePath("pixmaps/tool.png"), "pixmaps/tool.png"},
    };
    for (const auto& [key, file] : cases) {
        EXPECT_EQ(lookup.find(key).value_or("none"), dir.filePath(file)) << key.toStdString();
    }
    EXPECT_FALSE(lookup.find("unknown").has_value());
    EXPECT_FALSE(lookup.find(dir.filePath("pixmaps/missing.png")).has_value());
    EXPECT_EQ(lookup.load("big")->size(), QSize(128, 128));
    EXPECT_EQ(lookup.load("player")->size(), QSize(64, 64));
}

}  // namespace
}  // namespace bw::test
