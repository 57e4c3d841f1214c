#pragma once

// Included once by every test program that puts the tray on a session bus.
//
// Qt's D-Bus module runs libdbus on a thread of its own, with GLib's main loop driving its events;
// neither library is built with ThreadSanitizer, so their own locks and allocations look like
// races. These join the Qt entries of tests/thread-sanitizer.supp. They can't live in that file:
// the audio tests' PipeWire loads and unloads libdbus, and the sanitizer stops on an unloaded
// library that a suppression names.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libdbus-1.so\n"
           "called_from_lib:libglib-2.0.so\n";
}
#endif
