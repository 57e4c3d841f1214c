#include "interface/SoftShadow.h"

#include <QPainter>
#include <QRadialGradient>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace bw {

namespace {

// Three box blurs of these widths come close to one Gaussian of standard deviation sigma.
std::vector<int> boxWidths(double sigma) {
    const double ideal = std::sqrt(12.0 * sigma * sigma / 3.0 + 1.0);
    int lower = static_cast<int>(std::floor(ideal));
    if (lower % 2 == 0) {
        --lower;
    }
    const int upper = lower + 2;
    const double m =
        (12.0 * sigma * sigma - 3.0 * lower * lower - 12.0 * lower - 9.0) / (-4.0 * lower - 4.0);
    const int lowerCount = static_cast<int>(std::lround(m));
    std::vector<int> widths;
    for (int i = 0; i < 3; ++i) {
        widths.push_back(std::max(i < lowerCount ? lower : upper, 1));
    }
    return widths;
}

// One running-sum box pass along rows of `from` into `to` (stride and count give the direction).
void boxPass(const std::vector<float>& from, std::vector<float>& to, int lines, int length,
             int lineStride, int step, int radius) {
    const float scale = 1.0f / static_cast<float>(2 * radius + 1);
    for (int line = 0; line < lines; ++line) {
        const int base = line * lineStride;
        float sum = 0.0f;
        for (int i = -radius; i <= radius; ++i) {
            if (i >= 0 && i < length) {
                sum += from[base + i * step];
            }
        }
        for (int i = 0; i < length; ++i) {
            to[base + i * step] = sum * scale;
            const int out = i - radius;
            const int in = i + radius + 1;
            if (out >= 0) {
                sum -= from[base + out * step];
            }
            if (in < length) {
                sum += from[base + in * step];
            }
        }
    }
}

}  // namespace

double SoftShadow::discStrength(double distance, double discRadius, double blurRadius) {
    const double sigma = std::max(blurRadius, 0.01);
    // The Gaussian-weighted share of the disc seen from a point `distance` from its centre, by
    // the midpoint rule over rings of the disc and angles around it (the exponent is kept in one
    // piece so that no factor overflows).
    constexpr int kRings = 24;
    constexpr int kAngles = 48;
    const double twoSigmaSquared = 2.0 * sigma * sigma;
    double sum = 0.0;
    for (int i = 0; i < kRings; ++i) {
        const double r = discRadius * (i + 0.5) / kRings;
        double around = 0.0;
        for (int j = 0; j < kAngles; ++j) {
            const double theta = std::numbers::pi * (j + 0.5) / kAngles;  // symmetric half
            const double squared =
                (r - distance) * (r - distance) + 2.0 * r * distance * (1.0 - std::cos(theta));
            around += std::exp(-squared / twoSigmaSquared);
        }
        sum += r * around * (std::numbers::pi / kAngles) * 2.0;
    }
    sum *= discRadius / kRings;
    return std::clamp(sum / (std::numbers::pi * twoSigmaSquared), 0.0, 1.0);
}

namespace {

// The glow of a disc centred in a square image of `pixels` device pixels: one radial gradient
// through the disc's strength profile.
QImage discImage(int pixels, double ratio, double discRadius, double blurRadius,
                 const QColor& color) {
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    const double outer = discRadius + SoftShadow::reach(blurRadius);
    const double middle = pixels / ratio / 2.0;
    const QPointF center(middle, middle);
    constexpr int kStops = 24;
    QRadialGradient gradient(center, outer);
    for (int i = 0; i <= kStops; ++i) {
        QColor stop = color;
        stop.setAlphaF(static_cast<float>(
            color.alphaF() * SoftShadow::discStrength(outer * i / kStops, discRadius, blurRadius)));
        gradient.setColorAt(static_cast<double>(i) / kStops, stop);
    }
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(gradient);
    painter.drawEllipse(center, outer, outer);
    return image;
}

}  // namespace

void SoftShadow::paintDisc(QPainter& painter, QPointF center, double discRadius, double blurRadius,
                           const QColor& color) {
    struct Entry {
        long disc;
        long blur;
        QRgb color;
        long ratio;
        QImage image;
    };
    // Kept across frames, newest first: a glow that breathes with a level takes few sizes.
    static std::vector<Entry> cache;
    constexpr std::size_t kBudgetBytes = 4 << 20;

    // Half-point steps of blur look the same and bound the number of pictures.
    const double blur = std::round(blurRadius * 2.0) / 2.0;
    const double ratio = painter.device() ? painter.device()->devicePixelRatioF() : 1.0;
    const long disc = std::lround(discRadius * 100);
    const long blurKey = std::lround(blur * 100);
    const long ratioKey = std::lround(ratio * 100);
    auto found = std::find_if(cache.begin(), cache.end(), [&](const Entry& e) {
        return e.disc == disc && e.blur == blurKey && e.color == color.rgba() &&
               e.ratio == ratioKey;
    });
    if (found == cache.end()) {
        const double outer = discRadius + reach(blur);
        const int pixels = 2 * static_cast<int>(std::ceil(outer * ratio)) + 2;
        cache.insert(cache.begin(), Entry{disc, blurKey, color.rgba(), ratioKey,
                                          discImage(pixels, ratio, discRadius, blur, color)});
        std::size_t bytes = 0;
        for (auto e = cache.begin(); e != cache.end(); ++e) {
            bytes += static_cast<std::size_t>(e->image.sizeInBytes());
            if (bytes > kBudgetBytes && e != cache.begin()) {
                cache.erase(e, cache.end());
                break;
            }
        }
        found = cache.begin();
    } else if (found != cache.begin()) {
        std::rotate(cache.begin(), found, found + 1);
        found = cache.begin();
    }
    const QImage& image = found->image;
    const double half = image.width() / ratio / 2.0;
    painter.drawImage(QPointF(center.x() - half, center.y() - half), image);
}

QImage SoftShadow::blurred(const QImage& shape, double blurRadius, const QColor& color) {
    const QImage source = shape.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    const int width = source.width();
    const int height = source.height();
    QImage result(source.size(), QImage::Format_ARGB32_Premultiplied);
    result.setDevicePixelRatio(source.devicePixelRatio());
    result.fill(Qt::transparent);
    if (width == 0 || height == 0) {
        return result;
    }
    std::vector<float> alpha(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(source.constScanLine(y));
        for (int x = 0; x < width; ++x) {
            alpha[static_cast<std::size_t>(y) * width + x] = static_cast<float>(qAlpha(line[x]));
        }
    }
    std::vector<float> scratch(alpha.size());
    const double sigma = blurRadius * source.devicePixelRatio();
    if (sigma > 0.2) {
        for (const int box : boxWidths(sigma)) {
            const int radius = (box - 1) / 2;
            boxPass(alpha, scratch, height, width, width, 1, radius);
            boxPass(scratch, alpha, width, height, 1, width, radius);
        }
    }
    // Premultiplied colour per unit of alpha, so each pixel is four multiplications.
    const float unit = static_cast<float>(color.alphaF()) / 255.0f;
    const float red = static_cast<float>(color.redF()) * 255.0f;
    const float green = static_cast<float>(color.greenF()) * 255.0f;
    const float blue = static_cast<float>(color.blueF()) * 255.0f;
    for (int y = 0; y < height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(result.scanLine(y));
        const float* from = alpha.data() + static_cast<std::size_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            const float a = std::clamp(from[x] * unit, 0.0f, 1.0f);
            line[x] = qRgba(static_cast<int>(red * a + 0.5f), static_cast<int>(green * a + 0.5f),
                            static_cast<int>(blue * a + 0.5f), static_cast<int>(a * 255.0f + 0.5f));
        }
    }
    return result;
}

}  // namespace bw
