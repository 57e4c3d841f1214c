#include "platform/av/PCMBuffer.h"

#include <gtest/gtest.h>

#include "platform/hal/AudioHardwareConstants.h"
#include "tests/support/FakeHardware.h"

namespace bw {
namespace {

using test::FakeHardware;

AudioStreamBasicDescription int24() {
    AudioStreamBasicDescription asbd = FakeHardware::int16Format(48000, 2);
    asbd.mBitsPerChannel = 24;
    asbd.mBytesPerFrame = asbd.mBytesPerPacket = 6;
    return asbd;
}

AudioStreamBasicDescription aac() {
    AudioStreamBasicDescription asbd = FakeHardware::floatFormat(48000, 2);
    asbd.mFormatID = kAudioFormatMPEG4AAC;
    return asbd;
}

struct DescriptionCase {
    const char* name;
    AudioStreamBasicDescription asbd;
    bool valid;
    CommonFormat common;
    bool interleaved;
};

class StreamDescriptionTest : public ::testing::TestWithParam<DescriptionCase> {};

TEST_P(StreamDescriptionTest, GivesTheSampleTypeAndLayoutOrNothing) {
    const auto& c = GetParam();
    auto format = AudioFormat::fromStreamDescription(c.asbd);
    ASSERT_EQ(format.has_value(), c.valid);
    if (!format) {
        return;
    }
    EXPECT_EQ(format->commonFormat(), c.common);
    EXPECT_EQ(format->isInterleaved(), c.interleaved);
    EXPECT_EQ(format->sampleRate(), c.asbd.mSampleRate);
    EXPECT_EQ(format->channelCount(), c.asbd.mChannelsPerFrame);
    // A known layout describes itself the same way again.
    if (c.common != CommonFormat::otherFormat) {
        EXPECT_EQ(AudioFormat::fromStreamDescription(format->streamDescription()), format);
    } else {
        EXPECT_EQ(format->streamDescription(), c.asbd);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, StreamDescriptionTest,
    ::testing::Values(
        DescriptionCase{"Float32Planar", FakeHardware::floatFormat(48000, 2), true,
                        CommonFormat::pcmFormatFloat32, false},
        DescriptionCase{"Float32Interleaved", FakeHardware::floatFormat(44100, 3, true), true,
                        CommonFormat::pcmFormatFloat32, true},
        DescriptionCase{"Int16", FakeHardware::int16Format(48000, 2), true,
                        CommonFormat::pcmFormatInt16, true},
        DescriptionCase{"Int24IsOther", int24(), true, CommonFormat::otherFormat, true},
        DescriptionCase{"NoRate", FakeHardware::floatFormat(0, 2), false, CommonFormat::otherFormat,
                        false},
        DescriptionCase{"NoChannels", FakeHardware::floatFormat(48000, 0), false,
                        CommonFormat::otherFormat, false},
        DescriptionCase{"Compressed", aac(), false, CommonFormat::otherFormat, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PCMBufferTest, WrapsAnIOBufferListWithoutCopying) {
    float left[6] = {1, 2, 3, 4, 5, 6};
    float right[6] = {-1, -2, -3, -4, -5, -6};
    AudioBuffer planar[2] = {{1, sizeof left, left}, {1, sizeof right, right}};
    AudioBufferList planarList{2, planar};
    auto wrapped = PCMBuffer::wrapNoCopy(*AudioFormat::standard(48000, 2), planarList);
    ASSERT_TRUE(wrapped);
    EXPECT_EQ(wrapped->frameLength(), 6u);
    EXPECT_EQ(wrapped->floatChannelData()[0], left);
    EXPECT_EQ(wrapped->floatChannelData()[1], right);

    AudioBuffer interleaved[1] = {{2, sizeof left, left}};
    AudioBufferList interleavedList{1, interleaved};
    const AudioFormat stereoInterleaved(CommonFormat::pcmFormatFloat32, 48000, 2, true);
    auto joined = PCMBuffer::wrapNoCopy(stereoInterleaved, interleavedList);
    ASSERT_TRUE(joined);
    EXPECT_EQ(joined->frameLength(), 3u);
    EXPECT_EQ(joined->bufferCount(), 1u);

    // Layouts that don't match the format are refused.
    EXPECT_FALSE(PCMBuffer::wrapNoCopy(*AudioFormat::standard(48000, 2), interleavedList));
    EXPECT_FALSE(PCMBuffer::wrapNoCopy(stereoInterleaved, planarList));
    AudioBuffer uneven[2] = {{1, sizeof left, left}, {1, 8, right}};
    AudioBufferList unevenList{2, uneven};
    EXPECT_FALSE(PCMBuffer::wrapNoCopy(*AudioFormat::standard(48000, 2), unevenList));
}

TEST(PCMBufferTest, OwnedBuffersAreZeroedSeparateAndBoundedByCapacity) {
    auto buffer = PCMBuffer::make(*AudioFormat::standard(48000, 4), 100);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->frameLength(), 0u);
    EXPECT_TRUE(buffer->setFrameLength(100));
    EXPECT_FALSE(buffer->setFrameLength(101));
    EXPECT_EQ(buffer->frameLength(), 100u);
    float* const* data = buffer->floatChannelData();
    for (int c = 0; c < 4; ++c) {
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(data[c][i], 0.0f);
        }
        data[c][99] = float(c + 1);
    }
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(data[c][99], float(c + 1)) << "channels overlap";
    }
    auto ints = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatInt16, 48000, 2, true), 10);
    ASSERT_TRUE(ints);
    EXPECT_EQ(ints->floatChannelData(), nullptr);
    EXPECT_NE(ints->int16ChannelData(), nullptr);
    EXPECT_FALSE(PCMBuffer::make(AudioFormat(CommonFormat::otherFormat, 48000, 2, true), 10));
}

}  // namespace
}  // namespace bw
