#include "capture/CoreAudioTapProbe.h"

#include "capture/CoreAudioError.h"
#include "platform/hal/UUID.h"

namespace bw {

Expected<void, ErrorRef> CoreAudioTapProbe::makeTap() {
    TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({});
    description.uuidString = UUID().uuidString();
    description.name = "BrightwaveRecord Permission Check";
    description.isPrivate = true;
    description.muteBehavior = TapDescription::MuteBehavior::unmuted;
    AudioObjectID tap = 0;
    const OSStatus status = hardware_ ? hardware_->createProcessTap(description, tap)
                                      : kAudioHardwareNotRunningError;
    if (status != 0) {
        return Unexpected(makeError(CoreAudioError(status, "create permission-check tap")));
    }
    hardware_->destroyProcessTap(tap);
    return {};
}

}  // namespace bw
