#include "platform/av/AudioEngine.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "platform/av/AudioPlayerNode.h"
#include "platform/av/VectorOps.h"
#include "platform/av/detail/CompletionThread.h"
#include "platform/av/detail/DeviceFormat.h"
#include "platform/dispatch/SerialQueue.h"

namespace bw {

namespace {

// Frames rendered per pass through the graph; device cycles longer than this take several passes.
constexpr FrameCount kMaxSlice = 4096;

Unexpected<AVError> deviceError(OSStatus status, const std::string& sentence) {
    return Unexpected(
        AVError(status, sentence + " (audio system error " + std::to_string(status) + ")."));
}

bool isPlayableDeviceFormat(const AudioFormat& format) {
    return format.commonFormat() == CommonFormat::pcmFormatFloat32 ||
           (format.commonFormat() == CommonFormat::pcmFormatInt16 && format.isInterleaved());
}

std::vector<AudioObjectID> readDeviceList(AudioHardware& hardware) {
    const AudioObjectPropertyAddress address{kAudioHardwarePropertyDevices,
                                             kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    std::uint32_t size = 0;
    if (hardware.getPropertyDataSize(kAudioObjectSystemObject, address, 0, nullptr, size) != 0) {
        return {};
    }
    std::vector<AudioObjectID> devices(size / sizeof(AudioObjectID));
    size = std::uint32_t(devices.size() * sizeof(AudioObjectID));
    if (size == 0 || hardware.getPropertyData(kAudioObjectSystemObject, address, 0, nullptr, size,
                                              devices.data()) != 0) {
        return {};
    }
    devices.resize(size / sizeof(AudioObjectID));
    return devices;
}

}  // namespace

AudioEngine::AudioEngine(std::shared_ptr<AudioHardware> hardware)
    : hardware_(std::move(hardware)),
      inputQueue_(std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.audio-input")),
      notifyQueue_(std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.audio-engine")),
      completions_(std::make_unique<detail::CompletionThread>()) {}

AudioEngine::~AudioEngine() {
    stop();
    removeDeviceListeners();
    notifyQueue_->sync([] {});
    for (auto& node : nodes_) {
        node->renderingStopped();
        node->engine_ = nullptr;
    }
}

void AudioEngine::attach(const std::shared_ptr<AudioNode>& node) {
    if (!node || node->engine_ != nullptr) {
        return;
    }
    node->engine_ = this;
    nodes_.push_back(node);
}

bool AudioEngine::connect(const std::shared_ptr<AudioNode>& source,
                          const std::shared_ptr<AudioNode>& target, const AudioFormat& format) {
    if (!source || !target || source->engine_ != this || target->engine_ != this ||
        target->maximumInputs() == 0) {
        return false;
    }
    if (target->maximumInputs() == 1) {
        target->inputs_.assign(1, AudioNode::Input{source, format});
        if (!target->outputFormat_) {
            target->outputFormat_ = format;
        }
    } else {
        target->inputs_.push_back(AudioNode::Input{source, format});
    }
    source->outputFormat_ = format;
    return true;
}

std::shared_ptr<AudioMixerNode> AudioEngine::mainMixerNode() {
    if (!mainMixer_) {
        mainMixer_ = std::make_shared<AudioMixerNode>();
        attach(mainMixer_);
    }
    return mainMixer_;
}

std::shared_ptr<AudioInputNode> AudioEngine::inputNode() {
    if (!inputNode_) {
        inputNode_ = std::make_shared<AudioInputNode>(hardware_);
        attach(inputNode_);
    }
    return inputNode_;
}

void AudioEngine::enableManualRenderingMode(const AudioFormat& format) {
    manualFormat_ = *AudioFormat::standard(format.sampleRate(), format.channelCount());
}

void AudioEngine::prepare() {
    if (mainMixer_ && manualFormat_) {
        mainMixer_->setOutputFormat(*manualFormat_);
    } else if (mainMixer_ && hardware_) {
        const AudioDeviceID device =
            detail::readSystemDevice(*hardware_, kAudioHardwarePropertyDefaultOutputDevice);
        if (auto asbd = detail::readDeviceStreamFormat(*hardware_, device,
                                                       kAudioObjectPropertyScopeOutput)) {
            if (auto format = AudioFormat::fromStreamDescription(*asbd)) {
                outputDeviceFormat_ = format;
                mainMixer_->setOutputFormat(
                    *AudioFormat::standard(format->sampleRate(), format->channelCount()));
            }
        }
    }
    if (!mainMixer_ || !mainMixer_->outputFormat()) {
        return;
    }
    std::vector<AudioNode*> prepared;
    prepareNode(*mainMixer_, prepared);
    renderScratch_.assign(mainMixer_->outputFormat()->channelCount(),
                          std::vector<float>(kMaxSlice));
    renderPointers_.clear();
    for (auto& channel : renderScratch_) {
        renderPointers_.push_back(channel.data());
    }
}

void AudioEngine::prepareNode(AudioNode& node, std::vector<AudioNode*>& prepared) {
    if (std::find(prepared.begin(), prepared.end(), &node) != prepared.end()) {
        return;
    }
    prepared.push_back(&node);
    for (const auto& input : node.inputs_) {
        prepareNode(*input.node, prepared);
    }
    node.renderable_ = node.prepareRender(kMaxSlice);
}

Expected<void, AVError> AudioEngine::start() {
    if (isRunning()) {
        return {};
    }
    const bool manual = manualFormat_.has_value() && mainMixer_ != nullptr;
    if (!hardware_) {
        return deviceError(kAudioHardwareNotRunningError, "No audio hardware is available");
    }
    const bool wantsOutput = mainMixer_ != nullptr && !manual;
    const bool wantsInput = inputNode_ && inputNode_->hasTap();
    if (!wantsOutput && !wantsInput && !manual) {
        return deviceError(kAudioHardwareIllegalOperationError,
                           "The audio engine has nothing to play or record");
    }
    DeviceRun output;
    DeviceRun input;
    if (wantsOutput) {
        if (auto started = startOutput(output); !started) {
            return started;
        }
    }
    if (wantsInput) {
        if (auto started = startInput(input); !started) {
            stopDevices(output, {});
            return started;
        }
    }
    if (manual) {
        // Nothing plays, but the output device is still watched: its loss or replacement is the
        // audio configuration changing, as when it clocks the graph.
        OSStatus status = 0;
        output.device = detail::readSystemDevice(
            *hardware_, kAudioHardwarePropertyDefaultOutputDevice, &status);
        if (output.device == 0) {
            stopDevices({}, input);
            return deviceError(status != 0 ? status : kAudioHardwareBadDeviceError,
                               "No audio output device is available");
        }
        prepare();
    }
    {
        std::lock_guard lock(stateMutex_);
        running_ = true;
        output_ = output;
        input_ = input;
    }
    if (manual) {
        rendersManually_.store(true);
    }
    addDeviceListeners();
    return {};
}

Expected<void, AVError> AudioEngine::startOutput(DeviceRun& run) {
    OSStatus status = 0;
    const AudioDeviceID device =
        detail::readSystemDevice(*hardware_, kAudioHardwarePropertyDefaultOutputDevice, &status);
    if (device == 0) {
        return deviceError(status != 0 ? status : kAudioHardwareBadDeviceError,
                           "No audio output device is available");
    }
    auto asbd = detail::readDeviceStreamFormat(*hardware_, device, kAudioObjectPropertyScopeOutput);
    auto format = asbd ? AudioFormat::fromStreamDescription(*asbd) : std::nullopt;
    if (!format || !isPlayableDeviceFormat(*format)) {
        return deviceError(kAudioHardwareUnsupportedOperationError,
                           "The audio output device has no format that can be played");
    }
    outputDeviceFormat_ = format;
    mainMixer_->setOutputFormat(
        *AudioFormat::standard(format->sampleRate(), format->channelCount()));
    prepare();

    AudioDeviceIOProcID proc = 0;
    status = hardware_->createIOProcID(
        device, nullptr,
        [this](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
               AudioBufferList* outputData, const AudioTimeStamp*) { renderCycle(outputData); },
        proc);
    if (status != 0) {
        return deviceError(status, "The audio output device could not be opened");
    }
    status = hardware_->deviceStart(device, proc);
    if (status != 0) {
        hardware_->destroyIOProcID(device, proc);
        return deviceError(status, "The audio output device could not be started");
    }
    run = DeviceRun{device, proc};
    return {};
}

Expected<void, AVError> AudioEngine::startInput(DeviceRun& run) {
    const AudioDeviceID device = inputNode_->device();
    if (device == 0) {
        return deviceError(kAudioHardwareBadDeviceError, "No audio input device is available");
    }
    auto asbd = detail::readDeviceStreamFormat(*hardware_, device, kAudioObjectPropertyScopeInput);
    auto format = asbd ? AudioFormat::fromStreamDescription(*asbd) : std::nullopt;
    if (!format || !isPlayableDeviceFormat(*format)) {
        return deviceError(kAudioHardwareBadDeviceError,
                           "The audio input device has no format that can be recorded");
    }
    inputDeviceFormat_ = format;
    AudioDeviceIOProcID proc = 0;
    OSStatus status = hardware_->createIOProcID(
        device, inputQueue_,
        [node = inputNode_.get(), deviceFormat = *format](
            const AudioTimeStamp*, const AudioBufferList* inputData, const AudioTimeStamp*,
            AudioBufferList*, const AudioTimeStamp*) {
            if (inputData != nullptr) {
                node->deliver(*inputData, deviceFormat);
            }
        },
        proc);
    if (status != 0) {
        return deviceError(status, "The audio input device could not be opened");
    }
    status = hardware_->deviceStart(device, proc);
    if (status != 0) {
        hardware_->destroyIOProcID(device, proc);
        return deviceError(status, "The audio input device could not be started");
    }
    run = DeviceRun{device, proc};
    return {};
}

void AudioEngine::stop() {
    DeviceRun output;
    DeviceRun input;
    {
        std::lock_guard lock(stateMutex_);
        if (!running_) {
            return;
        }
        running_ = false;
        output = std::exchange(output_, {});
        input = std::exchange(input_, {});
    }
    if (rendersManually_.exchange(false)) {
        waitForRenderCycle();
    }
    removeDeviceListeners();
    stopDevices(output, input);
}

bool AudioEngine::isRunning() const {
    std::lock_guard lock(stateMutex_);
    return running_;
}

void AudioEngine::stopDevices(DeviceRun output, DeviceRun input) {
    if (output.proc != 0) {
        hardware_->deviceStop(output.device, output.proc);
        hardware_->destroyIOProcID(output.device, output.proc);
        waitForRenderCycle();
    }
    if (input.proc != 0) {
        hardware_->deviceStop(input.device, input.proc);
        hardware_->destroyIOProcID(input.device, input.proc);
        waitForInputCycle();
    }
}

// Realtime: pulls the graph through the main mixer into the device's buffers. No allocation,
// lock, log or wait; completions are handed over with one semaphore post.
void AudioEngine::renderCycle(AudioBufferList* output) {
    renderEpoch_.fetch_add(1);
    if (output != nullptr && output->mNumberBuffers > 0 && outputDeviceFormat_ && mainMixer_ &&
        !renderPointers_.empty()) {
        const AudioFormat& format = *outputDeviceFormat_;
        const ChannelCount channels =
            std::min<ChannelCount>(format.channelCount(), ChannelCount(renderPointers_.size()));
        const std::uint32_t perBuffer = format.isInterleaved() ? format.channelCount() : 1;
        const std::uint32_t bytesPerFrame = format.bytesPerSample() * perBuffer;
        const FrameCount frames = output->mBuffers[0].mDataByteSize / bytesPerFrame;
        for (FrameCount done = 0; done < frames;) {
            const FrameCount count = std::min(kMaxSlice, frames - done);
            mainMixer_->pull(renderPointers_.data(), count);
            if (format.commonFormat() == CommonFormat::pcmFormatInt16) {
                auto* out = static_cast<std::int16_t*>(output->mBuffers[0].mData) +
                            std::size_t(done) * format.channelCount();
                for (ChannelCount c = 0; c < channels; ++c) {
                    for (FrameCount i = 0; i < count; ++i) {
                        const float s =
                            std::clamp(renderPointers_[c][i] * 32768.0f, -32768.0f, 32767.0f);
                        out[std::size_t(i) * format.channelCount() + c] = std::int16_t(s);
                    }
                }
            } else if (format.isInterleaved()) {
                vec::interleave(renderPointers_.data(),
                                static_cast<float*>(output->mBuffers[0].mData) +
                                    std::size_t(done) * format.channelCount(),
                                channels, count);
            } else {
                for (ChannelCount c = 0; c < channels && c < output->mNumberBuffers; ++c) {
                    std::copy_n(renderPointers_[c], count,
                                static_cast<float*>(output->mBuffers[c].mData) + done);
                }
            }
            done += count;
        }
    }
    if (completionsPosted_) {
        completionsPosted_ = false;
        completions_->wake();
    }
    renderEpoch_.fetch_add(1);
}

// Realtime: the main mixer's pull, as a device cycle would, into scratch nobody reads. The
// running flag is read inside the cycle's epoch, so a `stop` that cleared it and then found no
// cycle running knows none will start.
bool AudioEngine::renderManually(FrameCount frames) {
    renderEpoch_.fetch_add(1);
    const bool rendering = rendersManually_.load() && !renderPointers_.empty();
    if (rendering) {
        for (FrameCount done = 0; done < frames;) {
            const FrameCount count = std::min(kMaxSlice, frames - done);
            mainMixer_->pull(renderPointers_.data(), count);
            done += count;
        }
        if (completionsPosted_) {
            completionsPosted_ = false;
            completions_->wake();
        }
    }
    renderEpoch_.fetch_add(1);
    return rendering;
}

void AudioEngine::waitForRenderCycle() const {
    const std::uint64_t epoch = renderEpoch_.load();
    if ((epoch & 1) == 0) {
        return;
    }
    while (renderEpoch_.load() == epoch) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

void AudioEngine::waitForInputCycle() const {
    if (!inputQueue_->isCurrent()) {
        inputQueue_->sync([] {});
    }
}

void AudioEngine::addDeviceListeners() {
    auto listener = std::make_shared<const AudioObjectPropertyListenerBlock>(
        [this](std::uint32_t, const AudioObjectPropertyAddress*) { handleDeviceChange(); });
    for (auto selector :
         {kAudioHardwarePropertyDefaultOutputDevice, kAudioHardwarePropertyDevices}) {
        hardware_->addPropertyListener(
            kAudioObjectSystemObject,
            {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain},
            notifyQueue_, listener);
    }
    std::lock_guard lock(stateMutex_);
    deviceListener_ = std::move(listener);
}

void AudioEngine::removeDeviceListeners() {
    AudioObjectPropertyListener listener;
    {
        std::lock_guard lock(stateMutex_);
        listener = std::exchange(deviceListener_, nullptr);
    }
    if (!listener) {
        return;
    }
    for (auto selector :
         {kAudioHardwarePropertyDefaultOutputDevice, kAudioHardwarePropertyDevices}) {
        hardware_->removePropertyListener(
            kAudioObjectSystemObject,
            {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain},
            notifyQueue_, listener);
    }
}

void AudioEngine::handleDeviceChange() {
    DeviceRun output;
    DeviceRun input;
    {
        std::lock_guard lock(stateMutex_);
        if (!running_) {
            return;
        }
        output = output_;
        input = input_;
    }
    const auto devices = readDeviceList(*hardware_);
    auto gone = [&](AudioDeviceID device) {
        return device != 0 && std::find(devices.begin(), devices.end(), device) == devices.end();
    };
    bool changed = gone(output.device) || gone(input.device);
    if (output.device != 0 &&
        detail::readSystemDevice(*hardware_, kAudioHardwarePropertyDefaultOutputDevice) !=
            output.device) {
        changed = true;
    }
    if (!changed) {
        return;
    }
    {
        std::lock_guard lock(stateMutex_);
        if (!running_ || output_.proc != output.proc || input_.proc != input.proc) {
            return;
        }
        running_ = false;
        output_ = {};
        input_ = {};
    }
    removeDeviceListeners();
    stopDevices(output, input);
    postConfigurationChange();
}

void AudioEngine::postConfigurationChange() {
    std::vector<ObserverToken> tokens;
    {
        std::lock_guard lock(stateMutex_);
        for (const auto& [token, observer] : observers_) {
            tokens.push_back(token);
        }
    }
    for (ObserverToken token : tokens) {
        std::function<void()> observer;
        {
            std::lock_guard lock(stateMutex_);
            auto it = std::find_if(observers_.begin(), observers_.end(),
                                   [&](const auto& entry) { return entry.first == token; });
            if (it == observers_.end()) {
                continue;
            }
            observer = it->second;
        }
        observer();
    }
}

AudioEngine::ObserverToken AudioEngine::addConfigurationChangeObserver(
    std::function<void()> observer) {
    std::lock_guard lock(stateMutex_);
    const ObserverToken token = nextToken_++;
    observers_.emplace_back(token, std::move(observer));
    return token;
}

void AudioEngine::removeConfigurationChangeObserver(ObserverToken token) {
    std::lock_guard lock(stateMutex_);
    std::erase_if(observers_, [&](const auto& entry) { return entry.first == token; });
}

}  // namespace bw
