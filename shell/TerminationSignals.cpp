#include "shell/TerminationSignals.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <csignal>

namespace bw {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
int pipeEnds[2] = {-1, -1};

// Realtime: runs as a signal handler; only async-signal-safe calls (write), nothing else.
void forward(int signalNumber) {
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const auto written = ::write(pipeEnds[0], &byte, 1);
}

}  // namespace

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pipeEnds) != 0) {
        return;
    }
    ::fcntl(pipeEnds[0], F_SETFL, O_NONBLOCK);
    ::fcntl(pipeEnds[1], F_SETFL, O_NONBLOCK);
    notifier_ = new QSocketNotifier(pipeEnds[1], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &TerminationSignals::drain);
    struct sigaction action = {};
    action.sa_handler = forward;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : kSignals) {
        ::sigaction(number, &action, nullptr);
    }
}

TerminationSignals::~TerminationSignals() {
    for (const int number : kSignals) {
        std::signal(number, SIG_DFL);
    }
    delete notifier_;
    for (int& end : pipeEnds) {
        if (end >= 0) {
            ::close(end);
            end = -1;
        }
    }
}

void TerminationSignals::drain() {
    unsigned char byte = 0;
    while (::read(pipeEnds[1], &byte, 1) == 1) {
        emit received(byte);
    }
}

}  // namespace bw
