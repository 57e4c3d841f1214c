#include "capture/ProcessTapCapture.h"

#include <algorithm>
#include <map>

#include "capture/AudioObjectAccess.h"
#include "capture/AudioProcessEnumerator.h"
#include "capture/ProcessTapError.h"
#include "platform/av/PCMBuffer.h"
#include "platform/av/VectorOps.h"
#include "platform/hal/UUID.h"

namespace bw {

ProcessTapCapture::ProcessTapCapture(TapTarget target, bool muteTappedAudio,
                                     std::shared_ptr<AudioHardware> hardware,
                                     std::shared_ptr<Workspace> workspace)
    : target_(target),
      muteTappedAudio_(muteTappedAudio),
      hardware_(std::move(hardware)),
      workspace_(std::move(workspace)),
      queue_(std::make_shared<SerialQueue>(kQueueLabel)) {}

ProcessTapCapture::~ProcessTapCapture() {
    stop();
}

std::vector<AudioObjectID> ProcessTapCapture::currentMemberObjects() const {
    std::lock_guard guard(rebindLock_);
    return currentMemberObjects_;
}

void ProcessTapCapture::setBufferHandler(BufferHandler handler) {
    std::lock_guard guard(bufferHandlerLock_);
    storedBufferHandler_ = std::move(handler);
}

void ProcessTapCapture::setFailureHandler(FailureCallback handler) {
    lossReport_.set(std::move(handler));
}

std::vector<AudioObjectID> ProcessTapCapture::memberObjects(AudioHardware& hardware,
                                                            Workspace& workspace,
                                                            std::int32_t pid) {
    auto objects = readArrayProperty(hardware, kAudioHardwarePropertyProcessObjectList,
                                     kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
    if (!objects) {
        return {};
    }
    std::vector<std::int32_t> order;
    std::map<std::int32_t, std::vector<AudioObjectID>> byPID;
    for (AudioObjectID object : objects.value()) {
        auto objectPID = readProperty<std::int32_t>(hardware, kAudioProcessPropertyPID, object, -1);
        if (!objectPID || objectPID.value() < 1) {
            continue;
        }
        auto& list = byPID[objectPID.value()];
        if (list.empty()) {
            order.push_back(objectPID.value());
        }
        list.push_back(object);
    }
    std::vector<AudioObjectID> members;
    for (std::int32_t candidate : order) {
        if (candidate == pid ||
            AudioProcessEnumerator::responsiblePID(workspace, candidate) == pid) {
            const auto& list = byPID[candidate];
            members.insert(members.end(), list.begin(), list.end());
        }
    }
    return members;
}

AggregateDeviceDescription ProcessTapCapture::aggregateDescription(
    const std::string& outputDeviceUID, const std::string& tapUUID) {
    AggregateDeviceDescription description;
    description.name = kDeviceName;
    description.uid = kDeviceUIDPrefix + UUID().uuidString();
    description.mainSubDevice = outputDeviceUID;
    description.isPrivate = true;
    description.isStacked = false;
    description.tapAutoStart = true;
    description.subDevices = {{outputDeviceUID}};
    description.taps = {{true, tapUUID}};
    return description;
}

Expected<void, ErrorRef> ProcessTapCapture::makeTapDescription(TapDescription& description) {
    const bool bundleTaps = hardware_->supportsBundleIDTaps();
    if (target_.isSystemAudio()) {
        auto own = processObject(*hardware_, workspace_->ownPID());
        if (own) {
            description = TapDescription::stereoGlobalTapButExcludeProcesses({own.value()});
        } else if (!bundleTaps) {
            return Unexpected(
                makeError(CoreAudioError(kAudioHardwareBadObjectError,
                                         "identify BrightwaveRecord for feedback prevention")));
        } else {
            description = TapDescription::stereoGlobalTapButExcludeProcesses({});
        }
        if (bundleTaps) {
            if (auto bundleID = workspace_->ownBundleID(); bundleID && !bundleID->empty()) {
                description.bundleIDs = {*bundleID};
            }
        }
        return {};
    }
    auto members = memberObjects(*hardware_, *workspace_, target_.pid());
    std::erase(members, AudioObjectID(0));
    const auto application = workspace_->runningApplication(target_.pid());
    const auto bundleID = application ? application->bundleID : std::nullopt;
    {
        std::lock_guard guard(rebindLock_);
        followedPID_ = target_.pid();
        bundleID_ = bundleID && !bundleID->empty() ? bundleID : std::nullopt;
    }
    if (!members.empty()) {
        description = TapDescription::stereoMixdownOfProcesses(members);
        std::lock_guard guard(rebindLock_);
        currentMemberObjects_ = members;
        return {};
    }
    if (bundleTaps && bundleID && !bundleID->empty()) {
        // The application hasn't played yet: the tap waits for it by its bundle ID.
        description = TapDescription::stereoMixdownOfProcesses({});
        description.bundleIDs = {*bundleID};
        std::lock_guard guard(rebindLock_);
        currentMemberObjects_.clear();
        return {};
    }
    std::string name = application && application->localizedName
                           ? *application->localizedName
                           : "PID " + std::to_string(target_.pid());
    return Unexpected(makeError(ProcessTapError::appHasNotPlayedAudio(std::move(name))));
}

Unexpected<ErrorRef> ProcessTapCapture::tearDown(ErrorRef error) {
    stop();
    return Unexpected(std::move(error));
}

Expected<void, ErrorRef> ProcessTapCapture::start() {
    if (started_) {
        return {};
    }
    TapDescription description;
    if (auto made = makeTapDescription(description); !made) {
        return made;
    }
    description.uuidString = UUID().uuidString();
    description.name = kTapName;
    description.isPrivate = true;
    description.muteBehavior = muteTappedAudio_ ? TapDescription::MuteBehavior::mutedWhenTapped
                                                : TapDescription::MuteBehavior::unmuted;

    AudioObjectID tap = 0;
    if (OSStatus status = hardware_->createProcessTap(description, tap); status != 0) {
        return Unexpected(makeError(CoreAudioError(status, "create process tap")));
    }
    tapID_ = tap;
    {
        std::lock_guard guard(rebindLock_);
        tapDescription_ = description;
    }

    auto tapStream = readProperty<AudioStreamBasicDescription>(*hardware_, kAudioTapPropertyFormat,
                                                               tap, AudioStreamBasicDescription{});
    if (!tapStream) {
        return tearDown(makeError(tapStream.error()));
    }
    auto tapFormat = AudioFormat::fromStreamDescription(tapStream.value());
    if (!tapFormat || tapFormat->commonFormat() != CommonFormat::pcmFormatFloat32) {
        return tearDown(makeError(
            CoreAudioError(kAudioHardwareUnsupportedOperationError, "unsupported tap format")));
    }

    auto output = defaultOutputDevice(*hardware_);
    if (!output) {
        return tearDown(makeError(output.error()));
    }
    auto outputUID = readStringProperty(*hardware_, kAudioDevicePropertyDeviceUID,
                                        kAudioObjectPropertyScopeGlobal, output.value());
    if (!outputUID) {
        return tearDown(makeError(outputUID.error()));
    }

    AudioObjectID aggregate = 0;
    if (OSStatus status = hardware_->createAggregateDevice(
            aggregateDescription(outputUID.value(), description.uuidString), aggregate);
        status != 0) {
        return tearDown(makeError(CoreAudioError(status, "create aggregate device")));
    }
    aggregateID_ = aggregate;

    auto deviceRate =
        readProperty<double>(*hardware_, kAudioDevicePropertyNominalSampleRate, aggregate, 0.0);
    if (!deviceRate) {
        return tearDown(makeError(deviceRate.error()));
    }
    // The device's clock decides the rate; the tap's description gives the rest of the layout.
    const double rate = deviceRate.value() > 0 ? deviceRate.value() : tapFormat->sampleRate();
    std::optional<AudioFormat> received = tapFormat;
    if (rate != tapFormat->sampleRate()) {
        AudioStreamBasicDescription adjusted = tapFormat->streamDescription();
        adjusted.mSampleRate = rate;
        received = AudioFormat::fromStreamDescription(adjusted);
    }
    std::optional<AudioFormat> delivered =
        received ? AudioFormat::standard(rate, received->channelCount()) : std::nullopt;
    if (!received || !delivered) {
        return tearDown(makeError(
            CoreAudioError(kAudioHardwareUnsupportedOperationError, "unsupported tap format")));
    }
    tapFormat_ = received;
    format_ = delivered;

    AudioDeviceIOProcID proc = 0;
    OSStatus status = hardware_->createIOProcID(
        aggregate, queue_,
        [weak = weak_from_this()](const AudioTimeStamp*, const AudioBufferList* input,
                                  const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*) {
            if (auto self = weak.lock()) {
                self->ioCycle(input);
            }
        },
        proc);
    if (status != 0) {
        return tearDown(makeError(CoreAudioError(status, "create IO proc")));
    }
    ioProcID_ = proc;
    if (status = hardware_->deviceStart(aggregate, proc); status != 0) {
        return tearDown(makeError(CoreAudioError(status, "start aggregate device")));
    }
    started_ = true;
    lossReport_.rearm();
    overloadWatch_ =
        std::make_unique<OverloadWatch>(hardware_, aggregate, queue_, [weak = weak_from_this()] {
            if (auto self = weak.lock()) {
                self->lossReport_.report();
            }
        });
    if (!target_.isSystemAudio()) {
        addProcessListListener();
    }
    return {};
}

void ProcessTapCapture::addProcessListListener() {
    auto listener = std::make_shared<const AudioObjectPropertyListenerBlock>(
        [weak = weak_from_this()](std::uint32_t, const AudioObjectPropertyAddress*) {
            if (auto self = weak.lock()) {
                self->rebind();
            }
        });
    const OSStatus status = hardware_->addPropertyListener(
        kAudioObjectSystemObject,
        {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal,
         kAudioObjectPropertyElementMain},
        queue_, listener);
    if (status == 0) {
        std::lock_guard guard(rebindLock_);
        processListListener_ = std::move(listener);
    }
    // Otherwise the capture runs on without following its target's helpers.
}

void ProcessTapCapture::stop() {
    overloadWatch_.reset();
    AudioObjectPropertyListener listener;
    {
        std::lock_guard guard(rebindLock_);
        listener = std::exchange(processListListener_, nullptr);
    }
    if (listener) {
        hardware_->removePropertyListener(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal,
             kAudioObjectPropertyElementMain},
            queue_, listener);
    }
    {
        std::lock_guard guard(rebindLock_);
        tapDescription_.reset();
        currentMemberObjects_.clear();
    }
    if (ioProcID_ != 0 && aggregateID_ != 0) {
        hardware_->deviceStop(aggregateID_, ioProcID_);
        hardware_->destroyIOProcID(aggregateID_, ioProcID_);
    }
    ioProcID_ = 0;
    if (aggregateID_ != 0) {
        hardware_->destroyAggregateDevice(aggregateID_);
        aggregateID_ = 0;
    }
    if (const AudioObjectID tap = tapID_.exchange(0); tap != 0) {
        hardware_->destroyProcessTap(tap);
    }
    started_ = false;
}

void ProcessTapCapture::ioCycle(const AudioBufferList* input) {
    if (!format_ || !tapFormat_ || input == nullptr) {
        return;
    }
    BufferHandler handler;
    {
        std::lock_guard guard(bufferHandlerLock_);
        handler = storedBufferHandler_;
    }
    if (!handler) {
        return;
    }
    auto wrapped = PCMBuffer::wrapNoCopy(*tapFormat_, *input);
    if (!wrapped || wrapped->frameLength() == 0) {
        return;
    }
    const AudioFormat& out = *format_;
    float* const* source = wrapped->floatChannelData();
    if (out.channelCount() != tapFormat_->channelCount() ||
        out.sampleRate() != tapFormat_->sampleRate() || out.isInterleaved() || source == nullptr) {
        return;
    }
    const FrameCount frames = wrapped->frameLength();
    auto buffer = PCMBuffer::make(out, frames);
    if (!buffer || !buffer->floatChannelData()) {
        return;
    }
    buffer->setFrameLength(frames);
    float* const* target = buffer->floatChannelData();
    const ChannelCount channels = out.channelCount();
    if (!tapFormat_->isInterleaved()) {
        for (ChannelCount c = 0; c < channels; ++c) {
            std::copy_n(source[c], frames, target[c]);
        }
    } else if (channels == 2) {
        vec::deinterleaveStereo(source[0], target[0], target[1], frames);
    } else {
        scratch_.assign(std::size_t(channels) * frames, 0.0f);
        vec::transpose(source[0], scratch_.data(), frames, channels);
        for (ChannelCount c = 0; c < channels; ++c) {
            std::copy_n(scratch_.data() + std::size_t(c) * frames, frames, target[c]);
        }
    }
    handler(std::move(buffer));
}

std::optional<std::int32_t> ProcessTapCapture::relaunchOf(const std::string& bundleID,
                                                          std::int32_t gone) {
    for (const RunningApplication& app : workspace_->runningApplications()) {
        if (app.pid != gone && app.bundleID == bundleID) {
            return app.pid;
        }
    }
    return std::nullopt;
}

void ProcessTapCapture::rebind() {
    std::int32_t followed = 0;
    std::optional<std::string> bundleID;
    {
        std::lock_guard guard(rebindLock_);
        followed = followedPID_;
        bundleID = bundleID_;
    }
    auto members = memberObjects(*hardware_, *workspace_, followed);
    if (members.empty() && bundleID) {
        // The application quit; when it starts again, its new process is the one to follow.
        if (const auto relaunched = relaunchOf(*bundleID, followed)) {
            members = memberObjects(*hardware_, *workspace_, *relaunched);
            followed = *relaunched;
        }
    }
    TapDescription candidate;
    AudioObjectID tap = 0;
    {
        std::lock_guard guard(rebindLock_);
        tap = tapID_.load();
        if (!started_ || !processListListener_ || tap == 0 || !tapDescription_) {
            return;
        }
        if (members == currentMemberObjects_ || members.empty()) {
            // When the target's last process goes, the tap keeps its old list and stays up.
            return;
        }
        candidate = *tapDescription_;
    }
    candidate.processes = members;
    if (hardware_->supportsBundleIDTaps()) {
        candidate.bundleIDs.clear();  // a tap that waited by bundle ID now follows the objects
    }
    // Written outside the lock: no lock is held across a call into the audio system. Rebinding
    // runs only on `queue_`, so no other rebinding interleaves.
    const TapDescription* reference = &candidate;
    const OSStatus status =
        hardware_->setPropertyData(tap,
                                   {kAudioTapPropertyDescription, kAudioObjectPropertyScopeGlobal,
                                    kAudioObjectPropertyElementMain},
                                   0, nullptr, sizeof reference, &reference);
    std::lock_guard guard(rebindLock_);
    if (status == 0 && tapDescription_) {
        *tapDescription_ = std::move(candidate);
        currentMemberObjects_ = std::move(members);
        followedPID_ = followed;
    }
    // Otherwise the old list stays recorded and the next change tries again.
}

}  // namespace bw
