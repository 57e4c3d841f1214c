#include "capture/OverloadWatch.h"

namespace bw {
namespace {

constexpr AudioObjectPropertyAddress kOverload{kAudioDeviceProcessorOverload,
                                               kAudioObjectPropertyScopeGlobal,
                                               kAudioObjectPropertyElementMain};

}  // namespace

OverloadWatch::OverloadWatch(std::shared_ptr<AudioHardware> hardware, AudioObjectID device,
                             std::shared_ptr<SerialQueue> queue, std::function<void()> overloaded)
    : hardware_(std::move(hardware)),
      device_(device),
      queue_(std::move(queue)),
      listener_(std::make_shared<const AudioObjectPropertyListenerBlock>(
          [overloaded = std::move(overloaded)](std::uint32_t, const AudioObjectPropertyAddress*) {
              overloaded();
          })) {
    if (hardware_->addPropertyListener(device_, kOverload, queue_, listener_) != 0) {
        listener_ = nullptr;  // a hardware without the announcement: nothing to hear
    }
}

OverloadWatch::~OverloadWatch() {
    if (listener_) {
        hardware_->removePropertyListener(device_, kOverload, queue_, listener_);
    }
}

}  // namespace bw
