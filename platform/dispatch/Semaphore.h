#pragma once

#include <semaphore.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace bw {

/// A counting semaphore on the C library's. `std::counting_semaphore` here spins and yields before
/// it sleeps and makes a futex call on every release; on a hand-over a few dozen times a second
/// that turned each wake-up into several trips through the scheduler. This one sleeps at once and
/// posts with a system call only when a thread waits.
///
/// Thread: any. `release` is realtime-safe (no allocation, lock or wait).
class Semaphore {
public:
    explicit Semaphore(unsigned initial = 0) { sem_init(&semaphore_, 0, initial); }
    ~Semaphore() { sem_destroy(&semaphore_); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Realtime: an atomic add, and a futex wake only when a thread waits.
    void release() { sem_post(&semaphore_); }

    /// Blocks until the count can be taken.
    void acquire() {
        while (sem_wait(&semaphore_) != 0 && errno == EINTR) {
        }
    }

    /// Blocks up to `timeout`; false when it ran out.
    bool tryAcquireFor(std::chrono::nanoseconds timeout) {
        timespec deadline{};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        const auto total = std::chrono::nanoseconds(deadline.tv_nsec) + timeout;
        deadline.tv_sec +=
            std::time_t(std::chrono::duration_cast<std::chrono::seconds>(total).count());
        deadline.tv_nsec = long((total % std::chrono::seconds(1)).count());
        while (sem_clockwait(&semaphore_, CLOCK_MONOTONIC, &deadline) != 0) {
            if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }

private:
    sem_t semaphore_;
};

}  // namespace bw
