#include "capture/MicrophoneCapture.h"

#include "capture/AudioInputDeviceEnumerator.h"
#include "capture/CoreAudioError.h"

namespace bw {

MicrophoneCapture::MicrophoneCapture(std::string deviceUID, std::shared_ptr<AudioHardware> hardware)
    : deviceUID_(std::move(deviceUID)),
      hardware_(std::move(hardware)),
      engine_(std::make_unique<AudioEngine>(hardware_)) {}

MicrophoneCapture::~MicrophoneCapture() {
    stop();
}

void MicrophoneCapture::setBufferHandler(BufferHandler handler) {
    std::lock_guard guard(bufferHandlerLock_);
    storedBufferHandler_ = std::move(handler);
}

void MicrophoneCapture::setFailureHandler(FailureCallback handler) {
    lossReport_.set(std::move(handler));
}

Expected<void, ErrorRef> MicrophoneCapture::start() {
    if (started_) {
        return {};
    }
    const auto device =
        hardware_ ? AudioInputDeviceEnumerator::deviceID(*hardware_, deviceUID_) : std::nullopt;
    if (!device) {
        return Unexpected(
            makeError(CoreAudioError(kAudioHardwareBadDeviceError, "input device not found")));
    }
    auto input = engine_->inputNode();
    AudioUnit* unit = input->audioUnit();
    if (unit == nullptr) {
        return Unexpected(
            makeError(CoreAudioError(kAudioUnitErr_Uninitialized, "input node has no audio unit")));
    }
    const AudioDeviceID deviceID = *device;
    if (OSStatus status = unit->setProperty(kAudioOutputUnitProperty_CurrentDevice,
                                            kAudioUnitScope_Global, 0, &deviceID, sizeof deviceID);
        status != 0) {
        return Unexpected(makeError(CoreAudioError(status, "select input device")));
    }
    const AudioFormat format = input->inputFormatForBus(0);
    if (!(format.sampleRate() > 0) || format.channelCount() == 0) {
        return Unexpected(makeError(
            CoreAudioError(kAudioHardwareBadDeviceError, "input device has no usable format")));
    }
    format_ = format;
    lossReport_.rearm();
    auto lost = [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->lossReport_.report();
        }
    };
    input->installTap(
        0, kTapBufferSize, format,
        [weak = weak_from_this()](std::shared_ptr<PCMBuffer> buffer, AudioTimeStamp) {
            if (auto self = weak.lock()) {
                self->deliver(std::move(buffer));
            }
        },
        lost);
    if (auto started = engine_->start(); !started) {
        input->removeTap(0);
        return Unexpected(makeError(started.error()));
    }
    started_ = true;
    if (!watchQueue_) {
        watchQueue_ = std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.mic-watch");
    }
    overloadWatch_ = std::make_unique<OverloadWatch>(hardware_, deviceID, watchQueue_, lost);
    return {};
}

void MicrophoneCapture::deliver(std::shared_ptr<PCMBuffer> buffer) {
    // The input node's tap hands over a buffer of its own, so it goes on without another copy.
    if (!buffer || buffer->floatChannelData() == nullptr) {
        return;
    }
    BufferHandler handler;
    {
        std::lock_guard guard(bufferHandlerLock_);
        handler = storedBufferHandler_;
    }
    if (handler) {
        handler(std::move(buffer));
    }
}

void MicrophoneCapture::stop() {
    if (!started_) {
        return;
    }
    overloadWatch_.reset();
    engine_->inputNode()->removeTap(0);
    engine_->stop();
    started_ = false;
}

}  // namespace bw
