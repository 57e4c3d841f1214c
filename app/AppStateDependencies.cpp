#include "app/AppStateDependencies.h"

#include "app/MicrophonePermission.h"
#include "app/OutputNaming.h"
#include "app/PlatformServices.h"
#include "app/SystemClock.h"
#include "app/SystemFileViewer.h"
#include "capture/CaptureFactory.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioHardware.h"

namespace bw {
namespace {

constexpr AudioObjectPropertySelector kWatchedLists[] = {kAudioHardwarePropertyProcessObjectList,
                                                         kAudioHardwarePropertyDevices};

// Listens to the hardware's process and device lists while it lives.
class ListWatch {
public:
    ListWatch(std::shared_ptr<AudioHardware> hardware, std::function<void()> changed)
        : hardware_(std::move(hardware)),
          queue_(std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.source-watch")),
          listener_(std::make_shared<const AudioObjectPropertyListenerBlock>(
              [changed = std::move(changed)](std::uint32_t, const AudioObjectPropertyAddress*) {
                  changed();
              })) {
        for (const auto selector : kWatchedLists) {
            hardware_->addPropertyListener(kAudioObjectSystemObject, address(selector), queue_,
                                           listener_);
        }
    }
    ~ListWatch() {
        for (const auto selector : kWatchedLists) {
            hardware_->removePropertyListener(kAudioObjectSystemObject, address(selector), queue_,
                                              listener_);
        }
    }
    ListWatch(const ListWatch&) = delete;
    ListWatch& operator=(const ListWatch&) = delete;

private:
    static AudioObjectPropertyAddress address(AudioObjectPropertySelector selector) {
        return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
    }

    std::shared_ptr<AudioHardware> hardware_;
    std::shared_ptr<SerialQueue> queue_;
    AudioObjectPropertyListener listener_;
};

std::shared_ptr<void> watchSystemLists(std::shared_ptr<AudioHardware> hardware,
                                       std::function<void()> changed) {
    return std::make_shared<ListWatch>(std::move(hardware), std::move(changed));
}

}  // namespace

AppStateDependencies AppStateDependencies::system() {
    auto hardware = PlatformServices::shared().hardware();
    auto workspace = PlatformServices::shared().workspace();
    AppStateDependencies dependencies;
    dependencies.listProcesses = [hardware, workspace] {
        return AudioProcessEnumerator::listProcesses(*hardware, *workspace);
    };
    dependencies.listInputDevices = [hardware] {
        return AudioInputDeviceEnumerator::listInputDevices(*hardware);
    };
    dependencies.watchSources = [hardware](std::function<void()> changed) {
        return watchSystemLists(hardware, std::move(changed));
    };
    dependencies.microphonePermissionRequester = [] { return MicrophonePermission::request(); };
    dependencies.recordingEngineFactory = makeRecordingEngineFactory(hardware, workspace);
    dependencies.defaults = std::make_shared<QSettings>(QStringLiteral("tallowfields"),
                                                        QStringLiteral("BrightwaveRecord"));
    dependencies.clock = SystemClock::shared();
    dependencies.defaultRecordingsFolder = [] { return OutputNaming::defaultRecordingsFolder(); };
    dependencies.fileViewer = std::make_shared<SystemFileViewer>();
    return dependencies;
}

}  // namespace bw
