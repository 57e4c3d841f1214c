#include <gtest/gtest.h>

#include <QPainter>

#include "interface/SymbolImages.h"

namespace bw {
namespace {

// The drawings themselves, one for every listed name, are the console pictures' to judge
// (symbols.png).
TEST(SymbolImagesTest, EveryListedNameHasADrawingInsideTheBox) {
    for (const QString& name : SymbolImages::names()) {
        ASSERT_TRUE(SymbolImages::contains(name)) << name.toStdString();
        EXPECT_TRUE(QRectF(0, 0, 24, 24).contains(SymbolImages::path(name).boundingRect()))
            << name.toStdString();
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
