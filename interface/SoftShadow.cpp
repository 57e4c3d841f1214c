#include "interface/SoftShadow.h"

#include <QPainter>
#include <QRadialGradient>
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
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

void SoftShadow::paintDisc(QPainter& painter, QPointF center, double discRadius, double blurRadius,
                           const QColor& color) {
    const double outer = discRadius + reach(blurRadius);
    constexpr int kStops = 24;
    // Profiles are reused across frames: a glow that breathes with a level takes few sizes.
    static std::map<std::pair<long, long>, std::array<double, kStops + 1>> profiles;
    const auto key = std::make_pair(std::lround(discRadius * 100), std::lround(blurRadius * 100));
    auto found = profiles.find(key);
    if (found == profiles.end()) {
        if (profiles.size() > 64) {
            profiles.clear();
        }
        std::array<double, kStops + 1> profile{};
        for (int i = 0; i <= kStops; ++i) {
            profile[i] = discStrength(outer * i / kStops, discRadius, blurRadius);
        }
        found = profiles.emplace(key, profile).first;
    }
    QRadialGradient gradient(center, outer);
    for (int i = 0; i <= kStops; ++i) {
        QColor stop = color;
        stop.setAlphaF(static_cast<float>(color.alphaF() * found->second[i]));
        gradient.setColorAt(static_cast<double>(i) / kStops, stop);
    }
    painter.save();
    painter.setPen(Qt::NoPen);
    painter.setBrush(gradient);
    painter.drawEllipse(center, outer, outer);
    painter.restore();
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
    const double colorAlpha = color.alphaF();
    for (int y = 0; y < height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(result.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const double a =
                std::clamp(alpha[static_cast<std::size_t>(y) * width + x] / 255.0, 0.0, 1.0) *
                colorAlpha;
            const int a8 = static_cast<int>(std::lround(a * 255.0));
            line[x] = qRgba(static_cast<int>(std::lround(color.redF() * a * 255.0)),
                            static_cast<int>(std::lround(color.greenF() * a * 255.0)),
                            static_cast<int>(std::lround(color.blueF() * a * 255.0)), a8);
        }
    }
    return result;
}

}  // namespace bw
