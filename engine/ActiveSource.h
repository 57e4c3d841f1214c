#pragma once

#include <memory>

#include "engine/AudioReceivedFlag.h"
#include "engine/BoundedBufferScheduler.h"
#include "engine/Capture.h"
#include "engine/RecordingSource.h"
#include "platform/av/AudioPlayerNode.h"
#include "platform/av/AudioUnitEQ.h"

namespace bw {

/// One source whose capture started, with its part of the graph. Shared references throughout:
/// buffer handlers hold the scheduler and flag directly, never this record.
struct ActiveSource {
    RecordingSource source;
    std::shared_ptr<Capture> capture;
    std::shared_ptr<AudioPlayerNode> player;
    std::shared_ptr<AudioUnitEQ> gainUnit;
    std::shared_ptr<BoundedBufferScheduler> scheduler;
    std::shared_ptr<AudioReceivedFlag> audioReceived;
};

}  // namespace bw
