#include "app/AppStateDependencies.h"

#include "app/MicrophonePermission.h"
#include "app/OutputNaming.h"
#include "app/PlatformServices.h"
#include "app/SystemClock.h"
#include "app/SystemFileViewer.h"
#include "capture/CaptureFactory.h"

namespace bw {

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
