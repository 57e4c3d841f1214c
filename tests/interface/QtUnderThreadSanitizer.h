#pragma once

// Included once by every widget test program.
//
// Qt isn't built with ThreadSanitizer. Its raster engine hands scaled images, large conversions
// and radial gradients to its own thread pool and waits with futex-based locks that the sanitizer
// can't see, so it reports Qt's own allocations and copies on those threads as races. These
// entries make the sanitizer treat Qt's libraries as the uninstrumented code they are (their calls
// to malloc, memcpy and pthread go unrecorded); the same holds for libdbus, which Qt's D-Bus module
// runs on its own thread for the tray, and for GLib, whose main loop drives that thread's events. Our code stays fully checked, the grain cache's
// worker included: it runs on std::thread with std::mutex and an eventfd, all called from our code.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libQt6Core.so\n"
           "called_from_lib:libQt6DBus.so\n"
           "called_from_lib:libQt6Gui.so\n"
           "called_from_lib:libQt6Widgets.so\n"
           "called_from_lib:libdbus-1.so\n"
           "called_from_lib:libglib-2.0.so\n";
}
#endif
