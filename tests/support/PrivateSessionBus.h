#pragma once

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace bw::test {

/// A D-Bus session bus of the test program's own: a `dbus-daemon --session` started at
/// construction and made the process's session bus (DBUS_SESSION_BUS_ADDRESS), stopped at
/// destruction. Make it before the QApplication, so Qt's session bus is this one.
class PrivateSessionBus {
public:
    PrivateSessionBus() {
        FILE* out = popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        if (!out) {
            return;
        }
        char line[512];
        if (fgets(line, sizeof line, out)) {
            address_ = trimmed(line);
        }
        if (fgets(line, sizeof line, out)) {
            pid_ = std::atoi(line);
        }
        pclose(out);
        if (!address_.empty()) {
            setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
        }
    }
    ~PrivateSessionBus() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
        }
    }
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

private:
    static std::string trimmed(std::string text) {
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }
        return text;
    }

    std::string address_;
    int pid_ = 0;
};

}  // namespace bw::test
