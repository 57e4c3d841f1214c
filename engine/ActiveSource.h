#pragma once

#include <memory>

#include "engine/AudioReceivedFlag.h"
#include "engine/BoundedBufferScheduler.h"
#include "engine/Capture.h"
#include "engine/QueuedFileWriter.h"
#include "engine/RecordingSource.h"
#include "platform/av/AudioMixerNode.h"
#include "platform/av/AudioPlayerNode.h"
#include "platform/av/AudioUnitEQ.h"

namespace bw {

/// One source whose capture started, with its part of the graph. Shared references throughout:
/// buffer handlers hold the scheduler and flag directly, never this record. A source saved on its
/// own also has a one-input mixer between its gain unit and the record mixer, which turns it into
/// the canonical format and whose tap is its own file's (its stem's) writer.
struct ActiveSource {
    RecordingSource source;
    std::shared_ptr<Capture> capture;
    std::shared_ptr<AudioPlayerNode> player;
    std::shared_ptr<AudioUnitEQ> gainUnit;
    std::shared_ptr<BoundedBufferScheduler> scheduler;
    std::shared_ptr<AudioReceivedFlag> audioReceived;
    std::shared_ptr<AudioMixerNode> stemMixer;     // null: no file of its own
    std::shared_ptr<QueuedFileWriter> stemWriter;  // null: none, or its file could not be made
};

}  // namespace bw
