#include "tests/support/FakeHardware.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// The engine and capture tests run on this fake and catch most of its faults through the product
// (a failure that isn't injected, a listener that isn't called). What they can't catch is a fake
// that lays samples out the way the product reads them by mistake: the layouts are checked here
// on their own.

namespace bw::test {
namespace {

class BufferLayoutTest : public ::testing::TestWithParam<bool> {};

// Multiples of 1/256, distinct per channel and frame.
float inputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(channel * 16 + frame) - 20) / 256.0f;
}

float outputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(frame * 8 + channel) - 30) / 256.0f;
}

TEST_P(BufferLayoutTest, InputArrivesInTheDeviceLayoutAndOutputComesBackPerChannel) {
    const bool interleaved = GetParam();
    constexpr std::uint32_t kChannels = 3;
    constexpr std::uint32_t kFrames = 8;
    FakeHardware hardware;
    const auto format = FakeHardware::floatFormat(48000, kChannels, interleaved);
    AudioObjectID device = hardware.addDevice({"duplex", "Duplex", format, format});

    // The last channel is left out (silence) and the first is short.
    std::vector<std::vector<float>> input(kChannels - 1);
    for (std::uint32_t ch = 0; ch < input.size(); ++ch) {
        for (std::uint32_t f = 0; f < (ch == 0 ? kFrames - 2 : kFrames); ++f) {
            input[ch].push_back(inputValue(ch, f));
        }
    }
    // Where a sample lives, worked out here rather than by the fake.
    auto sample = [&](const AudioBufferList& list, std::uint32_t ch, std::uint32_t f) -> float& {
        return interleaved ? static_cast<float*>(list.mBuffers[0].mData)[f * kChannels + ch]
                           : static_cast<float*>(list.mBuffers[ch].mData)[f];
    };

    bool layoutOk = false;
    int wrongInputs = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(
                  device, nullptr,
                  [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*,
                      AudioBufferList* out, const AudioTimeStamp*) {
                      const std::uint32_t buffers = interleaved ? 1 : kChannels;
                      layoutOk = in && out && in->mNumberBuffers == buffers &&
                                 out->mNumberBuffers == buffers &&
                                 in->mBuffers[0].mNumberChannels == kChannels / buffers;
                      for (std::uint32_t ch = 0; layoutOk && ch < kChannels; ++ch) {
                          for (std::uint32_t f = 0; f < kFrames; ++f) {
                              const bool given = ch < input.size() && f < input[ch].size();
                              wrongInputs +=
                                  sample(*in, ch, f) != (given ? input[ch][f] : 0.0f) ? 1 : 0;
                              sample(*out, ch, f) = outputValue(ch, f);
                          }
                      }
                  },
                  proc),
              0);
    ASSERT_EQ(hardware.deviceStart(device, proc), 0);
    auto output = hardware.runIOCycle(device, kFrames, input);

    ASSERT_TRUE(layoutOk);
    EXPECT_EQ(wrongInputs, 0);
    ASSERT_EQ(output.size(), kChannels);
    for (std::uint32_t ch = 0; ch < kChannels; ++ch) {
        ASSERT_EQ(output[ch].size(), kFrames);
        for (std::uint32_t f = 0; f < kFrames; ++f) {
            EXPECT_EQ(output[ch][f], outputValue(ch, f)) << "channel " << ch << " frame " << f;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, BufferLayoutTest, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "Interleaved" : "Split");
});

}  // namespace
}  // namespace bw::test
