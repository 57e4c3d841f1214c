#include "app/PlatformServices.h"

#include "platform/hal/PipeWireHardware.h"
#include "platform/workspace/SystemWorkspace.h"

namespace bw {

PlatformServices& PlatformServices::shared() {
    static auto* services = new PlatformServices;  // the audio connection lives to the end
    return *services;
}

PlatformServices::PlatformServices() : workspace_(std::make_shared<SystemWorkspace>()) {
    // The hardware layer asks whose sound a stream is, for taps by application and for leaving
    // our own sound out of system audio.
    hardware_ = std::make_shared<PipeWireHardware>(
        [workspace = workspace_](std::int32_t pid) -> std::optional<std::string> {
            auto application = workspace->runningApplication(workspace->responsiblePID(pid));
            return application ? application->bundleID : std::nullopt;
        });
}

}  // namespace bw
