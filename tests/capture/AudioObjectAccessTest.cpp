#include "capture/AudioObjectAccess.h"

#include <gtest/gtest.h>

#include "tests/support/FakeHardware.h"

namespace bw {
namespace {

using test::FakeHardware;
using test::HardwareOperation;

constexpr AudioObjectPropertyAddress kDevices{kAudioHardwarePropertyDevices,
                                              kAudioObjectPropertyScopeGlobal, 0};
const std::string kChanged = "changed array property size 1684370979";

auto readDevices(FakeHardware& hardware) {
    return readArrayProperty(hardware, kAudioHardwarePropertyDevices,
                             kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
}

struct ArrayCase {
    const char* name;
    std::vector<std::uint32_t> stored;
    std::optional<std::uint32_t> reportedSize;  // what the size call says, when it lies
    std::optional<std::uint32_t> returnedSize;  // what the data call says it wrote, when it lies
    std::string failure;  // the failing operation; empty when what is stored is read
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
    auto result = readDevices(hardware);
    if (c.failure.empty()) {
        ASSERT_TRUE(result) << result.error().localizedDescription();
        EXPECT_EQ(result.value(), c.stored);
    } else {
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error(), CoreAudioError(kAudioHardwareBadPropertySizeError, c.failure));
    }
    EXPECT_EQ(hardware.calls().size(), c.hardwareCalls);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ReadArrayPropertyTest,
    ::testing::ValuesIn(std::vector<ArrayCase>{
        {"Three", {7, 8, 9}, {}, {}, "", 2},
        {"EmptyMakesOneCall", {}, {}, {}, "", 1},
        {"SixBytesFailsBeforeReading", {1, 2}, 6u, {}, "invalid array property size 1684370979", 1},
        {"ShrankFromFiveToThree", {1, 2, 3}, 20u, {}, "", 2},
        {"ZeroBytesReturned", {}, 8u, {}, "", 2},
        {"GrewBetweenCalls", {1, 2, 3, 4, 5}, 12u, 20u, kChanged, 2},
        {"ReturnedAPartialEntry", {1, 2, 3}, 12u, 10u, kChanged, 2}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ReadArrayPropertyTest, HardwareFailuresKeepTheirStatus) {
    FakeHardware hardware;
    hardware.setArrayProperty(kAudioObjectSystemObject, kDevices, {1});
    hardware.failNext(HardwareOperation::getPropertyDataSize, -50);
    auto sized = readDevices(hardware);
    ASSERT_FALSE(sized);
    EXPECT_EQ(sized.error(), CoreAudioError(-50, "get property size 1684370979"));
    hardware.failNext(HardwareOperation::getPropertyData, kAudioHardwareBadObjectError);
    auto read = readDevices(hardware);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error(),
              CoreAudioError(kAudioHardwareBadObjectError, "get property 1684370979"));
}

TEST(ReadStringPropertyTest, NullReferenceAndFailuresAreErrors) {
    FakeHardware hardware;
    const AudioObjectPropertyAddress uid{kAudioDevicePropertyDeviceUID,
                                         kAudioObjectPropertyScopeGlobal, 0};
    auto readUID = [&] {
        return readStringProperty(hardware, kAudioDevicePropertyDeviceUID,
                                  kAudioObjectPropertyScopeGlobal, 100);
    };
    hardware.setStringProperty(100, uid, std::string("alsa_output.pci"));
    auto ok = readUID();
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok.value(), "alsa_output.pci");
    hardware.setStringProperty(100, uid, std::nullopt);
    auto empty = readUID();
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.error(), CoreAudioError(560947818, "string property empty"));
    hardware.failNext(HardwareOperation::getPropertyData, 1937010544);
    auto failed = readUID();
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error(), CoreAudioError(1937010544, "get string property 1969841184"));
}

TEST(ReadPropertyTest, AValueOfAnotherSizeFails) {
    FakeHardware hardware;
    const AudioObjectPropertyAddress pid{kAudioProcessPropertyPID, kAudioObjectPropertyScopeGlobal,
                                         0};
    hardware.setPropertyValue<std::int16_t>(100, pid, 7);
    auto wrong = readProperty<std::int32_t>(hardware, kAudioProcessPropertyPID, 100, -1);
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error(), CoreAudioError(kAudioHardwareBadPropertySizeError,
                                            "unexpected property size 1886415204"));
    hardware.setPropertyValue<std::int32_t>(100, pid, 77);
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

}  // namespace
}  // namespace bw
