#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace bw::test {

/// A D-Bus session bus of the test program's own: a `dbus-daemon --session` child started at
/// construction and made the process's session bus (DBUS_SESSION_BUS_ADDRESS), stopped at
/// destruction. The daemon also ends when the program dies without destructors (a failed check
/// under a sanitizer, a crash), so no run leaves daemons behind. Make it before the QApplication,
/// so Qt's session bus is this one.
class PrivateSessionBus {
public:
    PrivateSessionBus() {
        int address[2];
        if (pipe(address) != 0) {
            return;
        }
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent) {
                _exit(1);
            }
            close(address[0]);
            const std::string printTo = "--print-address=" + std::to_string(address[1]);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", printTo.c_str(),
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        close(address[1]);
        char buffer[512];
        ssize_t got = 0;
        while (pid_ > 0 && got < ssize_t(sizeof buffer)) {
            const ssize_t n = read(address[0], buffer + got, sizeof buffer - got);
            if (n <= 0) {
                break;
            }
            got += n;
            if (buffer[got - 1] == '\n') {
                break;
            }
        }
        close(address[0]);
        address_.assign(buffer, std::size_t(got));
        while (!address_.empty() && (address_.back() == '\n' || address_.back() == '\r')) {
            address_.pop_back();
        }
        if (!address_.empty()) {
            setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
        }
    }
    ~PrivateSessionBus() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

private:
    std::string address_;
    pid_t pid_ = -1;
};

}  // namespace bw::test
