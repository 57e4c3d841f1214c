#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QImage>
#include <QWidget>
#include <algorithm>
#include <cstdlib>

namespace bw::test {

/// `picture` against the reviewed picture `name` in docs/screenshots (the ones the README
/// shows): the same size, and at most one pixel in ten thousand with a component more than 3
/// steps of 255 off, so a changed colour, size, text or a step left out fails while rounding
/// doesn't. A picture that differs is kept in the temporary folder for a look. With
/// BW_SCREENSHOT_DIR set (scripts/screenshots), the picture is saved there instead.
inline ::testing::AssertionResult matchesScreenshot(const QImage& picture, const QString& name) {
    const QByteArray directory = qgetenv("BW_SCREENSHOT_DIR");
    if (!directory.isEmpty()) {
        const QDir folder(QString::fromLocal8Bit(directory));
        if (folder.mkpath(QStringLiteral(".")) && picture.save(folder.filePath(name))) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "could not save " << name.toStdString();
    }
    const QString reviewed =
        QDir::cleanPath(QStringLiteral(BW_TEST_DATA_DIR "/../../docs/screenshots/") + name);
    const QImage expected = QImage(reviewed).convertToFormat(QImage::Format_ARGB32);
    const QImage actual = picture.convertToFormat(QImage::Format_ARGB32);
    auto failure = [&] {
        const QString kept = QDir::temp().filePath(name);
        actual.save(kept);
        return ::testing::AssertionFailure()
               << name.toStdString() << " differs from " << reviewed.toStdString() << " (now in "
               << kept.toStdString() << "; if the change is meant, look at it and run "
               << "scripts/screenshots): ";
    };
    if (expected.isNull()) {
        return failure() << "no reviewed picture";
    }
    if (actual.size() != expected.size()) {
        return failure() << actual.width() << "×" << actual.height() << " against "
                         << expected.width() << "×" << expected.height();
    }
    qint64 off = 0;
    for (int y = 0; y < actual.height(); ++y) {
        const auto* a = reinterpret_cast<const QRgb*>(actual.constScanLine(y));
        const auto* e = reinterpret_cast<const QRgb*>(expected.constScanLine(y));
        for (int x = 0; x < actual.width(); ++x) {
            const int most = std::max(
                {std::abs(qRed(a[x]) - qRed(e[x])), std::abs(qGreen(a[x]) - qGreen(e[x])),
                 std::abs(qBlue(a[x]) - qBlue(e[x])), std::abs(qAlpha(a[x]) - qAlpha(e[x]))});
            off += most > 3 ? 1 : 0;
        }
    }
    if (off * 10000 > qint64(actual.width()) * actual.height()) {
        return failure() << off << " pixels off";
    }
    return ::testing::AssertionSuccess();
}

/// The widget painted alone on a transparent background (its window colour made clear for the
/// moment), as the device pixels of a grab. A grab, not `render` without background: Qt 6.4
/// misplaces children with graphics effects in the latter.
inline QImage paintedAlone(QWidget& widget) {
    const QPalette saved = widget.palette();
    QPalette clear = saved;
    clear.setColor(QPalette::Window, Qt::transparent);
    widget.setPalette(clear);
    const QImage image = widget.grab().toImage().convertToFormat(QImage::Format_ARGB32);
    widget.setPalette(saved);
    return image;
}

/// A transparent parent that holds a widget `margin` in from its top-left corner, so that what
/// the widget paints around itself (glows, rings) lands on the host's picture too.
struct Host {
    explicit Host(int margin) : margin(margin) {}

    /// Takes `widget` as its child at its size hint and returns it.
    template <typename W>
    W* hold(W* widget) {
        widget->setParent(&surface);
        widget->resize(widget->sizeHint());
        widget->move(margin, margin);
        surface.resize(widget->size() + QSize(2 * margin, 2 * margin));
        return widget;
    }

    /// The host painted with its child and the child's surroundings.
    QImage painted() { return paintedAlone(surface); }

    int margin;
    QWidget surface;
};

}  // namespace bw::test
