// Without an audio server the hardware layer answers every call with a status: nothing hangs,
// nothing crashes, and no object pretends to exist.

#include "platform/hal/PipeWireHardware.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/dispatch/SerialQueue.h"

namespace bw {
namespace {

TEST(PipeWireHardwareOfflineTest, EveryOperationFailsWithAStatusWhenNoServerAnswers) {
    const auto empty = std::filesystem::temp_directory_path() / ("bw-no-server-" + std::to_string(getpid()));
    std::filesystem::create_directories(empty);
    setenv("PIPEWIRE_RUNTIME_DIR", empty.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", empty.c_str(), 1);
    PipeWireHardware hardware;
    EXPECT_FALSE(hardware.isConnected());

    std::uint32_t size = 0;
    const AudioObjectPropertyAddress devices{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0};
    EXPECT_EQ(hardware.getPropertyDataSize(kAudioObjectSystemObject, devices, 0, nullptr, size),
              kAudioHardwareNotRunningError);
    AudioObjectID device = 0;
    size = sizeof device;
    EXPECT_EQ(hardware.getPropertyData(kAudioObjectSystemObject,
                                       {kAudioHardwarePropertyDefaultOutputDevice, kAudioObjectPropertyScopeGlobal, 0},
                                       0, nullptr, size, &device),
              kAudioHardwareNotRunningError);
    AudioObjectID tap = 0;
    EXPECT_EQ(hardware.createProcessTap(TapDescription::stereoGlobalTapButExcludeProcesses({}), tap),
              kAudioHardwareNotRunningError);
    AudioObjectID aggregate = 0;
    EXPECT_EQ(hardware.createAggregateDevice({}, aggregate), kAudioHardwareNotRunningError);
    AudioDeviceIOProcID proc = 0;
    EXPECT_EQ(hardware.createIOProcID(
                  12345, std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.test"),
                  [](auto...) {}, proc),
              kAudioHardwareNotRunningError);
    EXPECT_NE(hardware.deviceStart(12345, 1), 0);
    std::filesystem::remove_all(empty);
}

}  // namespace
}  // namespace bw
