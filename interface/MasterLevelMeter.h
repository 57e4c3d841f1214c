#pragma once

#include "interface/SegmentedMeter.h"

namespace bw {

/// The header's meter of the whole mix: a `SegmentedMeter` fed with the "master" level.
///
/// The caller connects the master level stream to `setLevel`; each value goes to the bar
/// unchanged, without smoothing. It is the bar itself rather than a frame around one, so the clip
/// lamp's glow reaches the panel instead of stopping at a wrapper's edge. GUI thread only.
class MasterLevelMeter : public SegmentedMeter {
    Q_OBJECT
public:
    explicit MasterLevelMeter(QWidget* parent = nullptr);
};

}  // namespace bw
