#include <gtest/gtest.h>

#include <QPainter>
#include <set>

#include "interface/SymbolImages.h"

namespace bw {
namespace {

// Names the console's views ask for; every one must have a drawing.
const QStringList kNamesInUse = {"app.dashed",
                                 "checkmark.circle.fill",
                                 "exclamationmark.triangle.fill",
                                 "folder",
                                 "gear",
                                 "headphones",
                                 "info.circle",
                                 "macbook",
                                 "magnifyingglass",
                                 "mic.fill",
                                 "record.circle",
                                 "record.circle.fill",
                                 "speaker.wave.2.circle.fill",
                                 "speaker.wave.2.fill",
                                 "stop.fill",
                                 "waveform",
                                 "waveform.circle.fill",
                                 "xmark.circle.fill"};

QImage drawn(const QString& name, int side = 48, QColor color = Qt::black) {
    QImage image(side, side, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    SymbolImages::draw(painter, name, QRectF(0, 0, side, side), color);
    return image;
}

bool inked(const QImage& image, QPointF designPoint) {
    const double scale = image.width() / SymbolImages::designSize;
    return qAlpha(image.pixel((designPoint * scale).toPoint())) > 128;
}

TEST(SymbolImagesTest, EveryNameInUseHasItsOwnDrawingInsideTheBox) {
    EXPECT_EQ(SymbolImages::names(), kNamesInUse);
    std::set<QByteArray> drawings;
    for (const QString& name : kNamesInUse) {
        ASSERT_TRUE(SymbolImages::contains(name)) << name.toStdString();
        const QRectF bounds = SymbolImages::path(name).boundingRect();
        EXPECT_TRUE(QRectF(0, 0, 24, 24).contains(bounds)) << name.toStdString();
        EXPECT_GT(bounds.width() * bounds.height(), 80) << name.toStdString();
        const QImage image = drawn(name);
        int ink = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                ink += qAlpha(image.pixel(x, y)) > 128;
            }
        }
        EXPECT_GT(ink, 48 * 48 / 20) << name.toStdString();
        EXPECT_LT(ink, 48 * 48 * 9 / 10) << name.toStdString();
        drawings.insert(
            QByteArray(reinterpret_cast<const char*>(image.constBits()), image.sizeInBytes()));
    }
    EXPECT_EQ(drawings.size(), static_cast<std::size_t>(kNamesInUse.size()));
}

TEST(SymbolImagesTest, FilledSymbolsCutTheirGlyphOutOfTheShape) {
    struct Case {
        const char* name;
        QPointF point;  // in the 24-point design box
        bool ink;
    };
    const std::vector<Case> cases = {
        {"xmark.circle.fill", {12, 12}, false},  // the cross is cut out
        {"xmark.circle.fill", {12, 4}, true},    // the disc around it
        {"checkmark.circle.fill", {10.6, 15.2}, false},
        {"checkmark.circle.fill", {6, 7}, true},
        {"exclamationmark.triangle.fill", {12, 11.5}, false},
        {"exclamationmark.triangle.fill", {7, 18}, true},
        {"record.circle.fill", {12, 12}, true},         // the dot stays
        {"record.circle.fill", {12, 12 - 6.9}, false},  // the ring around it is cut
        {"record.circle", {12, 12}, true},
        {"record.circle", {12, 12 - 8}, false},  // a gap between dot and ring
        {"stop.fill", {12, 12}, true},
        {"app.dashed", {12, 12}, false},  // an outline only
        {"folder", {12, 15}, false},
        {"magnifyingglass", {10, 10}, false},
        {"waveform.circle.fill", {12, 12}, false},
        {"waveform.circle.fill", {12, 2}, true},
        {"gear", {12, 12}, false},  // the hub's hole
        {"gear", {12, 7}, true},
        {"info.circle", {12, 12}, true},  // the stem
        {"info.circle", {7, 12}, false},  // between stem and ring
    };
    for (const auto& c : cases) {
        EXPECT_EQ(inked(drawn(c.name, 96), c.point), c.ink)
            << c.name << " at " << c.point.x() << "," << c.point.y();
    }
}

TEST(SymbolImagesTest, DrawingKeepsProportionsAndColourAndRefusesUnknownNames) {
    QImage image(60, 30, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    EXPECT_TRUE(SymbolImages::draw(painter, "stop.fill", QRectF(0, 0, 60, 30), Qt::red));
    EXPECT_FALSE(SymbolImages::draw(painter, "no.such.symbol", QRectF(0, 0, 60, 30), Qt::red));
    painter.end();
    // The 24-point box becomes 30 × 30, centred in the 60-point width.
    EXPECT_EQ(image.pixelColor(30, 15), QColor(Qt::red));
    EXPECT_EQ(qAlpha(image.pixel(10, 15)), 0);
    EXPECT_EQ(qAlpha(image.pixel(50, 15)), 0);
    EXPECT_FALSE(SymbolImages::contains("no.such.symbol"));
    EXPECT_TRUE(SymbolImages::path("no.such.symbol").isEmpty());

    const QPixmap pixmap = SymbolImages::pixmap("headphones", QSize(16, 16), Qt::white, 2.0);
    EXPECT_EQ(pixmap.size(), QSize(32, 32));
    EXPECT_EQ(pixmap.deviceIndependentSize(), QSizeF(16, 16));
    const QIcon icon = SymbolImages::icon("folder", Qt::blue);
    const QImage fromIcon = icon.pixmap(QSize(48, 48)).toImage();
    EXPECT_EQ(fromIcon.pixelColor(24, 40), QColor(Qt::blue));  // the folder's bottom line
    EXPECT_EQ(qAlpha(fromIcon.pixel(24, 30)), 0);              // its empty inside
}

}  // namespace
}  // namespace bw
