#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "engine/RecordingFormat.h"
#include "engine/RecordingSource.h"

namespace bw {

/// What one recording is: its sources in order, each source's fader volume at the start (1.0 when
/// missing), whether the mix plays at the speakers instead of the tapped audio, the file format
/// and the file to create (its folder is created when missing), and where each source's own file
/// goes when the sources are also saved one by one. A plain value, copied into the engine and
/// never changed there.
struct RecordingEngineConfiguration {
    std::vector<RecordingSource> sources;
    std::map<std::string, float> volumes;
    bool passthroughEnabled = false;
    RecordingFormat format = RecordingFormat::m4a;
    std::filesystem::path fileURL;
    /// Source id → that source's own file, in `fileURL`'s folder and format; a source without an
    /// entry gets none. The caller reserves the names; the engine writes the files of the sources
    /// that start (removing one it cannot make) and leaves the others alone.
    std::map<std::string, std::filesystem::path> sourceFileURLs;
};

}  // namespace bw
