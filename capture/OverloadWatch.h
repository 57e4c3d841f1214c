#pragma once

#include <functional>
#include <memory>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

/// Listens to a device's processor overload, which the hardware announces when the device's IO
/// lost audio because its reader fell behind, for as long as it lives.
///
/// Owner: a capture, from its start to its stop. `overloaded` runs on `queue`, outside every lock
/// of the watch; it may run once more while the watch is being destroyed on another thread, never
/// after the destructor returned on `queue`'s own thread.
class OverloadWatch {
public:
    OverloadWatch(std::shared_ptr<AudioHardware> hardware, AudioObjectID device,
                  std::shared_ptr<SerialQueue> queue, std::function<void()> overloaded);
    ~OverloadWatch();
    OverloadWatch(const OverloadWatch&) = delete;
    OverloadWatch& operator=(const OverloadWatch&) = delete;

private:
    std::shared_ptr<AudioHardware> hardware_;
    AudioObjectID device_;
    std::shared_ptr<SerialQueue> queue_;
    AudioObjectPropertyListener listener_;
};

}  // namespace bw
