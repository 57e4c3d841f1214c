#pragma once

#include <map>
#include <mutex>
#include <string>

#include "platform/av/PCMBuffer.h"

namespace bw {

/// The loudest peak of each source (and of the mix, under "master") since the last drain.
/// Linear magnitudes from 0 to 1.
///
/// Owner: the recording engine, shared with its buffer handlers and its mixer tap. Thread: any;
/// the lock is held for one lookup and store, or for the swap of the map. Allocates when a key is
/// first stored after a drain.
class LevelStore {
public:
    /// Keeps the larger of the stored peak and `peak`; a key without value is stored only for a
    /// peak above 0, so a source silent since the last drain has no entry.
    void record(const std::string& sourceID, float peak);

    /// Takes every entry out, leaving the store empty.
    std::map<std::string, float> drain();

private:
    std::mutex lock_;
    std::map<std::string, float> peaks_;
};

/// The largest sample magnitude of the buffer, at most 1.0; 0.0 for a buffer without float
/// samples or without frames. Scans each channel (or the one interleaved block) once.
float peakLevel(const PCMBuffer& buffer);

}  // namespace bw
