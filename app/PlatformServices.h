#pragma once

#include <memory>

#include "platform/hal/AudioHardware.h"
#include "platform/workspace/Workspace.h"

namespace bw {

/// The one connection to the audio server and the desktop's workspace that the process-wide
/// objects share. Tests never use it: they inject their own.
///
/// Thread: `shared()` is made on first use from the main thread; the objects it hands out are
/// safe on any thread.
class PlatformServices {
public:
    static PlatformServices& shared();

    std::shared_ptr<AudioHardware> hardware() const { return hardware_; }
    std::shared_ptr<Workspace> workspace() const { return workspace_; }

private:
    PlatformServices();

    std::shared_ptr<Workspace> workspace_;
    std::shared_ptr<AudioHardware> hardware_;
};

}  // namespace bw
