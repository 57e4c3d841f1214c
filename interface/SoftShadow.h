#pragma once

#include <QColor>
#include <QImage>
#include <QPointF>

class QPainter;

namespace bw {

/// The console's glows: soft shadows without offset or with a small one, the way the record key,
/// the clip lamp and the LCD digits light the panel around them.
///
/// A glow's radius is its blur radius in device-independent pixels: the standard deviation of a
/// Gaussian. GUI thread (they paint and keep pictures); the image function is pure.
class SoftShadow {
public:
    SoftShadow() = delete;

    /// Paints the blurred shadow of a filled disc of `discRadius` centred at `center`, in
    /// `color` (its alpha included), with the blur rounded to half a point. The blur of a disc is
    /// radially symmetric: one radial gradient through `discStrength`, drawn once per size,
    /// colour and screen scale into a picture that later paints reuse (at most 4 MB of them, the
    /// least recently used go first).
    static void paintDisc(QPainter& painter, QPointF center, double discRadius, double blurRadius,
                          const QColor& color);

    /// The strength (0…1) of the blurred shadow of a disc at `distance` from its centre.
    static double discStrength(double distance, double discRadius, double blurRadius);

    /// How far a glow of `blurRadius` reaches beyond its shape before it fades out (three
    /// standard deviations: what lies further is below one step of 255).
    static double reach(double blurRadius) { return blurRadius * 3.0; }

    /// The glow of any shape: `shape`'s alpha blurred by `blurRadius` (in pixels of the image's
    /// device pixel ratio) and filled with `color`. The result has the size and device pixel ratio
    /// of `shape`; leave room around the shape for `reach`.
    static QImage blurred(const QImage& shape, double blurRadius, const QColor& color);
};

}  // namespace bw
