#pragma once

#include <QImage>
#include <QObject>
#include <QSizeF>
#include <QString>
#include <optional>

class QPainter;
class QRectF;

namespace bw {

class GrainTextureCache;

/// The grain film of a console panel: asks `GrainTextureCache` for a texture of the panel's
/// pixel size and paints it stretched over the panel, texel for pixel, blended as an overlay.
///
/// The owner reports its size and scale (`updateSize`, cheap to call at every paint); a new
/// loading key starts a new request and makes the answer of the previous one void. Until an
/// answer arrives the old texture is painted, stretched to the new size; an answer of nothing
/// leaves the panel without grain. GUI thread only.
class GrainOverlay : public QObject {
    Q_OBJECT
public:
    /// `cache` must outlive the overlay; by default the shared one.
    explicit GrainOverlay(double opacity, GrainTextureCache* cache = nullptr,
                          QObject* parent = nullptr);

    /// The loading key of a size and scale, each number in its shortest decimal form with a
    /// fraction: "640.0x560.0@2.0".
    static QString loadingKey(QSizeF size, double scale);

    /// Starts loading when the key of `size` at `scale` differs from the current one.
    void updateSize(QSizeF size, double scale);

    /// Paints the texture (if any) into `rect` with the overlay blend and `opacity()`.
    void paint(QPainter& painter, const QRectF& rect) const;

    double opacity() const { return opacity_; }
    QString currentKey() const { return key_; }
    /// The texture on screen, exactly as the cache gave it.
    const std::optional<QImage>& texture() const { return texture_; }

signals:
    /// A request has been answered for the current key (the texture may now be none).
    void textureChanged();

private:
    GrainTextureCache* cache_;
    double opacity_;
    QString key_;
    quint64 generation_ = 0;
    std::optional<QImage> texture_;
    QImage premultiplied_;
};

}  // namespace bw
