#include "capture/AudioInputDeviceEnumerator.h"

#include <gtest/gtest.h>

#include "tests/support/FakeHardware.h"

namespace bw {
namespace {

using test::FakeHardware;
using Device = AudioInputDeviceEnumerator::InputDevice;

TEST(AudioInputDeviceEnumeratorTest, ListsRealInputDevicesSortedByName) {
    FakeHardware hardware;
    const auto mono = FakeHardware::floatFormat(48000, 1);
    hardware.addDevice({"speakers", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
    const auto usb = hardware.addDevice({"usb-mic", "usb Mic", {}, mono});
    const auto builtIn = hardware.addDevice({"builtin", "Built-in Microphone", {}, mono});
    hardware.addDevice({"BrightwaveRecord-1234", "Capture", {}, mono});
    const auto namedLikeUs = hardware.addDevice({"virtual-1", "BrightwaveRecord-looking name", {}, mono});
    hardware.addDevice({"CADefaultDeviceAggregate-1", "Default", {}, mono});
    hardware.addDevice({"agg-2", "CADefaultDeviceAggregate-2", {}, mono});
    const auto nameless = hardware.addDevice({"nameless", "Zed", {}, mono});
    hardware.removeProperty(nameless, {kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 0});
    const auto uidless = hardware.addDevice({"uidless", "Aaa", {}, mono});
    hardware.removeProperty(uidless, {kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 0});

    const std::vector<Device> expected = {
        {namedLikeUs, "virtual-1", "BrightwaveRecord-looking name"},
        {builtIn, "builtin", "Built-in Microphone"},
        {nameless, "nameless", "Unknown Device"},
        {usb, "usb-mic", "usb Mic"},
    };
    EXPECT_EQ(AudioInputDeviceEnumerator::listInputDevices(hardware), expected);

    struct Lookup {
        std::string uid;
        std::optional<AudioDeviceID> expected;
    };
    for (const auto& lookup : std::vector<Lookup>{{"usb-mic", usb},
                                                  {"BrightwaveRecord-1234", std::nullopt},
                                                  {"speakers", std::nullopt},
                                                  {"gone", std::nullopt}}) {
        EXPECT_EQ(AudioInputDeviceEnumerator::deviceID(hardware, lookup.uid), lookup.expected)
            << lookup.uid;
    }
}

TEST(AudioInputDeviceEnumeratorTest, NoDevicesOrNoListGiveAnEmptyList) {
    FakeHardware hardware;
    EXPECT_TRUE(AudioInputDeviceEnumerator::listInputDevices(hardware).empty());
    hardware.addDevice({"mic", "Mic", {}, FakeHardware::floatFormat(48000, 1)});
    hardware.failAlways(test::HardwareOperation::getPropertyDataSize, -1, kAudioHardwarePropertyDevices);
    EXPECT_TRUE(AudioInputDeviceEnumerator::listInputDevices(hardware).empty());
}

}  // namespace
}  // namespace bw
