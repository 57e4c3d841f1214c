#pragma once

#include <QImage>

#include "app/AppIconCache.h"
#include "interface/ManualConsoleClock.h"
#include "tests/app/AppRig.h"

namespace bw::test {

/// An `AppState` on fakes with what the views need beside it: a console clock that moves only
/// when told and an icon cache whose loader knows one icon, for process 1.
struct ViewRig : AppRig {
    ManualConsoleClock consoleClock;
    AppIconCache icons{[](std::int32_t pid) -> std::optional<QImage> {
        if (pid != 1) {
            return std::nullopt;
        }
        QImage image(32, 32, QImage::Format_ARGB32);
        image.fill(QColor(40, 120, 220));
        return image;
    }};

    /// One application playing (with an icon), one silent (without), one microphone.
    void listSome() {
        refreshWith({process(1, "org.example.Player", "Player", true),
                     process(2, "org.example.Notes", "Notes")},
                    {{5, "usb", "USB Mic"}});
    }

    const RecordingSource& app(std::size_t index) const { return state->appSources()[index]; }
};

}  // namespace bw::test
