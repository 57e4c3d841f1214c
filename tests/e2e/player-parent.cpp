// A stand-in application whose sound comes from a helper process it starts later:
//
//   bw-test-parent [--delay-ms N] FILE [PW-PLAY OPTION]...
//
// Sleeps N ms, then runs `pw-play [OPTION]... FILE` as a child and waits for it. SIGTERM and
// SIGINT are passed on to the child, so stopping the parent stops its sound too.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t child = 0;
volatile sig_atomic_t stopRequested = 0;

void onStop(int signal) {
    stopRequested = 1;
    if (child > 0) {
        kill(pid_t(child), signal);
    }
}

}  // namespace

int main(int argc, char** argv) {
    long delayMs = 0;
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--delay-ms") == 0) {
        delayMs = std::strtol(argv[2], nullptr, 10);
        first = 3;
    }
    if (first >= argc) {
        std::fprintf(stderr, "usage: bw-test-parent [--delay-ms N] FILE [PW-PLAY OPTION]...\n");
        return 2;
    }
    struct sigaction action{};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    // nanosleep returns early on a signal; a stop during the delay ends us before any sound.
    timespec remaining{delayMs / 1000, (delayMs % 1000) * 1000000};
    while (!stopRequested && nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
    if (stopRequested) {
        return 0;
    }

    std::vector<char*> arguments;
    arguments.push_back(const_cast<char*>("pw-play"));
    for (int i = first + 1; i < argc; ++i) {
        arguments.push_back(argv[i]);
    }
    arguments.push_back(argv[first]);
    arguments.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("bw-test-parent: fork");
        return 1;
    }
    if (pid == 0) {
        execvp("pw-play", arguments.data());
        std::perror("bw-test-parent: pw-play");
        _exit(127);
    }
    child = pid;
    if (stopRequested) {
        kill(pid, SIGTERM);  // the stop came between fork and recording the child
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
