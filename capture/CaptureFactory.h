#pragma once

#include <memory>

#include "engine/Capture.h"
#include "engine/RecordingEngineSession.h"
#include "platform/hal/AudioHardware.h"
#include "platform/workspace/Workspace.h"

namespace bw {

/// The captures of real sources: a process tap for system audio (`TapTarget::systemAudio`) and
/// applications (`TapTarget::process`), muted at their output when asked; a microphone capture
/// for input devices.
CaptureFactory makeCaptureFactory(std::shared_ptr<AudioHardware> hardware,
                                  std::shared_ptr<Workspace> workspace);

/// Recording engines on this hardware with those captures: the application's default factory.
RecordingEngineFactory makeRecordingEngineFactory(std::shared_ptr<AudioHardware> hardware,
                                                  std::shared_ptr<Workspace> workspace);

}  // namespace bw
