#include "capture/CaptureFactory.h"

#include "capture/MicrophoneCapture.h"
#include "capture/ProcessTapCapture.h"
#include "engine/RecordingEngine.h"

namespace bw {

CaptureFactory makeCaptureFactory(std::shared_ptr<AudioHardware> hardware,
                                  std::shared_ptr<Workspace> workspace) {
    return [hardware, workspace](const RecordingSource& source,
                                 bool muteTappedAudio) -> std::shared_ptr<Capture> {
        if (std::holds_alternative<RecordingSource::SystemAudio>(source.kind)) {
            return std::make_shared<ProcessTapCapture>(TapTarget::systemAudio(), muteTappedAudio,
                                                       hardware, workspace);
        }
        if (const auto* app = std::get_if<RecordingSource::App>(&source.kind)) {
            return std::make_shared<ProcessTapCapture>(TapTarget::process(app->pid),
                                                       muteTappedAudio, hardware, workspace);
        }
        const auto& microphone = std::get<RecordingSource::Microphone>(source.kind);
        return std::make_shared<MicrophoneCapture>(microphone.deviceUID, hardware);
    };
}

RecordingEngineFactory makeRecordingEngineFactory(std::shared_ptr<AudioHardware> hardware,
                                                  std::shared_ptr<Workspace> workspace) {
    return RecordingEngine::makeFactory(hardware, makeCaptureFactory(hardware, workspace));
}

}  // namespace bw
