#pragma once

#include <qcoro/qcorotask.h>

namespace bw {

/// The desktop's answer to "may this program record from microphones?".
///
/// Outside a sandbox, a Linux desktop has no such permission: the answer is yes. Inside a
/// Flatpak sandbox the answer is the device portal's (org.freedesktop.portal.Device), which may
/// show the user a dialog; a portal that cannot be reached answers no.
///
/// Thread: the main thread; the task resumes there.
class MicrophonePermission {
public:
    static QCoro::Task<bool> request();

    /// Whether the program runs inside a Flatpak sandbox.
    static bool isSandboxed();
};

}  // namespace bw
