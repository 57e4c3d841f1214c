#pragma once

#include <memory>

#include "capture/SystemAudioTapProbe.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

/// The real probe: a throwaway global tap ("BrightwaveRecord Permission Check") that excludes
/// nothing, destroyed at once when it could be made. No device is made and no sample is read.
class CoreAudioTapProbe : public SystemAudioTapProbe {
public:
    explicit CoreAudioTapProbe(std::shared_ptr<AudioHardware> hardware)
        : hardware_(std::move(hardware)) {}

    /// Fails with a CoreAudioError of the creation's status and "create permission-check tap".
    Expected<void, ErrorRef> makeTap() override;

private:
    std::shared_ptr<AudioHardware> hardware_;
};

}  // namespace bw
