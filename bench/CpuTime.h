#pragma once

#include <sys/resource.h>

namespace bw::bench {

/// CPU seconds (user and system) used so far by this process, or by its finished children.
inline double cpuSeconds(int who = RUSAGE_SELF) {
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace bw::bench
