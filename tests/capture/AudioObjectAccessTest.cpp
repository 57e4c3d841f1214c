#include "capture/AudioObjectAccess.h"

#include <gtest/gtest.h>

#include "tests/support/FakeHardware.h"

namespace bw {
namespace {

using test::FakeHardware;
using test::HardwareOperation;

constexpr AudioObjectPropertyAddress kDevices{kAudioHardwarePropertyDevices,
                                              kAudioObjectPropertyScopeGlobal, 0};

struct ArrayCase {
    const char* name;
    std::vector<std::uint32_t> stored;
    std::optional<std::uint32_t> reportedSize;  // what the size call says, when it lies
    std::optional<std::uint32_t> returnedSize;  // what the data call says it wrote, when it lies
    std::optional<std::vector<std::uint32_t>> expected;
    OSStatus status;
    std::string operation;
    std::size_t hardwareCalls;
    friend void PrintTo(const ArrayCase& c, std::ostream* os) { *os << c.name; }
};

class ReadArrayPropertyTest : public ::testing::TestWithParam<ArrayCase> {};

TEST_P(ReadArrayPropertyTest, ReadsOrFailsWithTheDocumentedStatusAndOperation) {
    const ArrayCase& c = GetParam();
    FakeHardware hardware;
    hardware.setArrayProperty(kAudioObjectSystemObject, kDevices, c.stored);
    if (c.reportedSize) {
        hardware.setReportedDataSize(kAudioObjectSystemObject, kDevices, *c.reportedSize);
    }
    if (c.returnedSize) {
        hardware.setReturnedDataSize(kAudioObjectSystemObject, kDevices, *c.returnedSize);
    }
    hardware.clearCalls();
    auto result = readArrayProperty(hardware, kAudioHardwarePropertyDevices,
                                    kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
    if (c.expected) {
        ASSERT_TRUE(result) << result.error().localizedDescription();
        EXPECT_EQ(result.value(), *c.expected);
    } else {
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().status(), c.status);
        EXPECT_EQ(result.error().operation(), c.operation);
    }
    EXPECT_EQ(hardware.calls().size(), c.hardwareCalls);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ReadArrayPropertyTest,
    ::testing::Values(
        ArrayCase{"Three", {7, 8, 9}, {}, {}, std::vector<std::uint32_t>{7, 8, 9}, 0, "", 2},
        ArrayCase{"EmptyMakesOneCall", {}, {}, {}, std::vector<std::uint32_t>{}, 0, "", 1},
        ArrayCase{"SixBytesFailsBeforeReading", {1, 2}, 6u, {}, std::nullopt,
                  kAudioHardwareBadPropertySizeError, "invalid array property size 1684370979", 1},
        ArrayCase{"ShrankFromFiveToThree", {1, 2, 3}, 20u, {}, std::vector<std::uint32_t>{1, 2, 3},
                  0, "", 2},
        ArrayCase{"ZeroBytesReturned", {}, 8u, {}, std::vector<std::uint32_t>{}, 0, "", 2},
        ArrayCase{"GrewBetweenCalls", {1, 2, 3, 4, 5}, 12u, 20u, std::nullopt,
                  kAudioHardwareBadPropertySizeError, "changed array property size 1684370979", 2},
        ArrayCase{"ReturnedAPartialEntry", {1, 2, 3}, 12u, 10u, std::nullopt,
                  kAudioHardwareBadPropertySizeError, "changed array property size 1684370979", 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ReadArrayPropertyTest, HardwareFailuresKeepTheirStatus) {
    FakeHardware hardware;
    hardware.setArrayProperty(kAudioObjectSystemObject, kDevices, {1});
    hardware.failNext(HardwareOperation::getPropertyDataSize, -50);
    auto sized = readArrayProperty(hardware, kAudioHardwarePropertyDevices,
                                   kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
    ASSERT_FALSE(sized);
    EXPECT_EQ(sized.error(), CoreAudioError(-50, "get property size 1684370979"));
    hardware.failNext(HardwareOperation::getPropertyData, kAudioHardwareBadObjectError);
    auto read = readArrayProperty(hardware, kAudioHardwarePropertyDevices,
                                  kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error(), CoreAudioError(kAudioHardwareBadObjectError, "get property 1684370979"));
}

TEST(ReadStringPropertyTest, NullReferenceAndFailuresAreErrors) {
    FakeHardware hardware;
    const AudioObjectPropertyAddress uid{kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 0};
    hardware.setStringProperty(100, uid, std::string("alsa_output.pci"));
    auto ok = readStringProperty(hardware, kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 100);
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok.value(), "alsa_output.pci");
    hardware.setStringProperty(100, uid, std::nullopt);
    auto empty = readStringProperty(hardware, kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 100);
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.error(), CoreAudioError(560947818, "string property empty"));
    hardware.failNext(HardwareOperation::getPropertyData, 1937010544);
    auto failed = readStringProperty(hardware, kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 100);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error(), CoreAudioError(1937010544, "get string property 1969841184"));
}

TEST(ReadPropertyTest, AValueOfAnotherSizeFails) {
    FakeHardware hardware;
    const AudioObjectPropertyAddress pidAddress{kAudioProcessPropertyPID, kAudioObjectPropertyScopeGlobal, 0};
    hardware.setPropertyValue<std::int16_t>(100, pidAddress, 7);
    auto wrong = readProperty<std::int32_t>(hardware, kAudioProcessPropertyPID, 100, -1);
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error(), CoreAudioError(kAudioHardwareBadPropertySizeError, "unexpected property size 1886415204"));
    hardware.setPropertyValue<std::int32_t>(100, pidAddress, 77);
    auto right = readProperty<std::int32_t>(hardware, kAudioProcessPropertyPID, 100, -1);
    ASSERT_TRUE(right);
    EXPECT_EQ(right.value(), 77);
}

TEST(ProcessObjectTest, TranslatesAPidOrSaysWhyNot) {
    FakeHardware hardware;
    const AudioObjectID object = hardware.addProcess(321);
    auto found = processObject(hardware, 321);
    ASSERT_TRUE(found);
    EXPECT_EQ(found.value(), object);
    auto missing = processObject(hardware, 999);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), CoreAudioError(560947818, "no process object for pid 999"));
    hardware.failNext(HardwareOperation::getPropertyData, -1);
    auto failed = processObject(hardware, 321);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error(), CoreAudioError(-1, "translate PID to process object"));
}

TEST(CoreAudioErrorTest, StatusesPrintAsSignedDecimals) {
    const std::vector<std::pair<CoreAudioError, std::string>> cases = {
        {CoreAudioError(kAudioHardwareBadObjectError, "string property empty"),
         "Audio system error 560947818 during string property empty"},
        {CoreAudioError(kAudioUnitErr_Uninitialized, "input node has no audio unit"),
         "Audio system error -10867 during input node has no audio unit"},
        {CoreAudioError(0, ""), "Audio system error 0 during "},
    };
    for (const auto& [error, text] : cases) {
        EXPECT_EQ(error.localizedDescription(), text);
    }
}

}  // namespace
}  // namespace bw
