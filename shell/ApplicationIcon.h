#pragma once

#include <QIcon>
#include <QImage>

namespace bw {

/// The program's own icon, drawn in code so the window icon and the installed PNGs are one
/// drawing: a dark console key with the glowing record button and an amber meter. Any thread
/// that may paint on a QImage.
class ApplicationIcon {
public:
    ApplicationIcon() = delete;

    /// The name the desktop entry and the icon theme know it by.
    static constexpr const char* kName = "com.tallowfields.BrightwaveRecord";

    /// The icon on a transparent square of `side` pixels.
    static QImage image(int side);
    /// The installed icon where the theme has it, else the drawing, at the usual sizes.
    static QIcon icon();
};

}  // namespace bw
