#include "platform/av/AudioFile.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/av/Mp4Fragments.h"
#include "platform/av/PcmHeaderRefresh.h"
#include "platform/base/Localization.h"
#include "platform/hal/AudioHardwareConstants.h"

namespace bw {
namespace {

// Error codes of the audio file API we mirror. Failures of the file system carry the errno
// instead, so callers can tell a full disk from a bad setting.
constexpr std::int32_t kAudioFileUnspecifiedError = std::int32_t(fourCharCode("wht?"));
constexpr std::int32_t kAudioFileUnsupportedFileTypeError = std::int32_t(fourCharCode("typ?"));
constexpr std::int32_t kAudioFileUnsupportedDataFormatError = std::int32_t(fourCharCode("fmt?"));
constexpr std::int32_t kAudioFileNotOpenError = -38;

constexpr int kPcmBitDepth = 16;
constexpr std::int64_t kDefaultAacBitRate = 256000;
constexpr std::int64_t kMaxSampleRate = 768000;
constexpr std::int64_t kMaxChannels = 8;
// PCM goes to the muxer in packets of at most this many frames, so the conversion scratch is
// allocated once, whatever size the caller's buffers are.
constexpr int kPcmChunkFrames = 8192;
// RIFF and AIFF sizes are 32-bit: about six hours of 48 kHz stereo.
constexpr std::uint64_t kPlainHeaderLimit = std::numeric_limits<std::uint32_t>::max();

enum class Container { m4a, wav, aiff };

/// What createForWriting decided from the file name and the settings.
struct Plan {
    Container container = Container::wav;
    std::string extension;  // as the caller spelled it, for messages
    AVCodecID codec = AV_CODEC_ID_NONE;
    int sampleRate = 0;
    int channels = 0;
    std::int64_t bitRate = 0;
};

AVError failure(std::int32_t code, std::string text) {
    return AVError(code, std::move(text));
}

std::string inQuotes(const std::string& text) {
    return "\u201c" + text + "\u201d";
}

std::string avErrorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(error, text, sizeof text) < 0) {
        std::snprintf(text, sizeof text, "error %d", error);
    }
    return text;
}

// errno for system failures (AVERROR(e) is -e), our generic code for FFmpeg's own ones.
std::int32_t codeOf(int avError) {
    const int posix = AVUNERROR(avError);
    return posix > 0 && posix < 4096 ? posix : kAudioFileUnspecifiedError;
}

std::string fourCharText(std::int64_t code) {
    if (code >= 0 && code <= 0xFFFFFFFF) {
        std::string text;
        for (int shift = 24; shift >= 0; shift -= 8) {
            const auto c = static_cast<unsigned char>((code >> shift) & 0xFF);
            if (!std::isprint(c)) {
                return std::to_string(code);
            }
            text += char(c);
        }
        return text;
    }
    return std::to_string(code);
}

std::string numberText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", value);
    return text;
}

std::string describe(const AudioFormat& format) {
    std::string text = numberText(format.sampleRate()) + " Hz ";
    switch (format.channelCount()) {
        case 1:
            text += "mono";
            break;
        case 2:
            text += "stereo";
            break;
        default:
            text += std::to_string(format.channelCount()) + "-channel";
    }
    switch (format.commonFormat()) {
        case CommonFormat::pcmFormatFloat32:
            return text + " 32-bit float";
        case CommonFormat::pcmFormatFloat64:
            return text + " 64-bit float";
        case CommonFormat::pcmFormatInt16:
            return text + " 16-bit integer";
        case CommonFormat::pcmFormatInt32:
            return text + " 32-bit integer";
        case CommonFormat::otherFormat:
            break;
    }
    return text + " non-standard";
}

const AudioSettingValue* find(const AudioSettings& settings, const char* key) {
    const auto it = settings.find(key);
    return it == settings.end() ? nullptr : &it->second;
}

// A whole number from an integer or an integral real; nothing for flags and fractions.
std::optional<std::int64_t> wholeNumber(const AudioSettingValue& value) {
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return *i;
    }
    if (const auto* d = std::get_if<double>(&value)) {
        if (std::isfinite(*d) && std::fabs(*d) < 1e15 && *d == std::floor(*d)) {
            return std::int64_t(*d);
        }
    }
    return std::nullopt;
}

// A flag, also spelled 0 or 1.
std::optional<bool> flag(const AudioSettingValue& value) {
    if (const auto* b = std::get_if<bool>(&value)) {
        return *b;
    }
    if (const auto* i = std::get_if<std::int64_t>(&value); i && (*i == 0 || *i == 1)) {
        return *i == 1;
    }
    return std::nullopt;
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

Expected<Container, AVError> containerFor(const std::filesystem::path& url, std::string& ext) {
    ext = url.extension().string();
    if (ext.empty() || ext == ".") {
        return Unexpected(failure(kAudioFileUnsupportedFileTypeError,
                                  "The file name " + inQuotes(url.filename().string()) +
                                      " has no extension to tell its type. Use " +
                                      inQuotes(".m4a") + ", " + inQuotes(".wav") + " or " +
                                      inQuotes(".aiff") + "."));
    }
    const std::string lower = lowercase(ext);
    if (lower == ".m4a") {
        return Container::m4a;
    }
    if (lower == ".wav") {
        return Container::wav;
    }
    if (lower == ".aiff" || lower == ".aif") {
        return Container::aiff;
    }
    return Unexpected(failure(kAudioFileUnsupportedFileTypeError,
                              "The file type " + inQuotes(ext) + " is not supported. Use " +
                                  inQuotes(".m4a") + ", " + inQuotes(".wav") + " or " +
                                  inQuotes(".aiff") + "."));
}

// Checks the PCM layout keys against what the container holds. Missing keys take the layout the
// container needs.
Expected<void, AVError> checkPcmLayout(const AudioSettings& settings, Container container,
                                       const std::string& ext) {
    const bool bigEndianContainer = container == Container::aiff;
    const auto bad = [](std::string text) {
        return Unexpected(failure(kAudioFileUnsupportedDataFormatError, std::move(text)));
    };
    const auto flagSetting = [&](const char* key, bool fallback) -> Expected<bool, AVError> {
        const AudioSettingValue* value = find(settings, key);
        if (value == nullptr) {
            return fallback;
        }
        if (const auto parsed = flag(*value)) {
            return *parsed;
        }
        return bad("The setting " + inQuotes(key) + " must be true or false.");
    };

    if (const AudioSettingValue* depth = find(settings, AVLinearPCMBitDepthKey)) {
        const auto bits = wholeNumber(*depth);
        if (!bits) {
            return bad("The setting " + inQuotes(AVLinearPCMBitDepthKey) +
                       " must be a whole number of bits.");
        }
        if (*bits != kPcmBitDepth) {
            return bad(inQuotes(ext) + " files are written with 16-bit samples, not " +
                       std::to_string(*bits) + "-bit.");
        }
    }
    const auto isFloat = flagSetting(AVLinearPCMIsFloatKey, false);
    if (!isFloat) {
        return Unexpected(isFloat.error());
    }
    if (isFloat.value()) {
        return bad(inQuotes(ext) +
                   " files are written with integer samples, not floating-point ones.");
    }
    const auto bigEndian = flagSetting(AVLinearPCMIsBigEndianKey, bigEndianContainer);
    if (!bigEndian) {
        return Unexpected(bigEndian.error());
    }
    if (bigEndian.value() != bigEndianContainer) {
        return bad(
            inQuotes(ext) + " files are " +
            (bigEndianContainer ? "big-endian; little-endian" : "little-endian; big-endian") +
            " PCM can't be written to them.");
    }
    const auto nonInterleaved = flagSetting(AVLinearPCMIsNonInterleaved, false);
    if (!nonInterleaved) {
        return Unexpected(nonInterleaved.error());
    }
    if (nonInterleaved.value()) {
        return bad(inQuotes(ext) +
                   " files hold interleaved samples; non-interleaved PCM can't be written to "
                   "them.");
    }
    return {};
}

bool aacSupportsRate(int rate) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (codec == nullptr || codec->supported_samplerates == nullptr) {
        return codec != nullptr;
    }
    for (const int* r = codec->supported_samplerates; *r != 0; ++r) {
        if (*r == rate) {
            return true;
        }
    }
    return false;
}

Expected<Plan, AVError> planFor(const std::filesystem::path& url, const AudioSettings& settings) {
    Plan plan;
    const auto container = containerFor(url, plan.extension);
    if (!container) {
        return Unexpected(container.error());
    }
    plan.container = container.value();
    const auto bad = [](std::string text) {
        return Unexpected(failure(kAudioFileUnsupportedDataFormatError, std::move(text)));
    };

    const AudioSettingValue* formatValue = find(settings, AVFormatIDKey);
    if (formatValue == nullptr) {
        return bad("The settings don't name an audio format (" + inQuotes(AVFormatIDKey) + ").");
    }
    const auto formatID = wholeNumber(*formatValue);
    if (!formatID) {
        return bad("The setting " + inQuotes(AVFormatIDKey) + " must be a format code.");
    }
    const bool isAac = *formatID == std::int64_t(kAudioFormatMPEG4AAC);
    const bool isPcm = *formatID == std::int64_t(kAudioFormatLinearPCM);
    if (!isAac && !isPcm) {
        return bad("The audio format " + inQuotes(fourCharText(*formatID)) +
                   " is not supported; use AAC or linear PCM.");
    }
    if (isAac && plan.container != Container::m4a) {
        return bad("AAC audio can only be written to " + inQuotes(".m4a") + " files, not " +
                   inQuotes(plan.extension) + " ones.");
    }
    if (isPcm && plan.container == Container::m4a) {
        return bad("Linear PCM can only be written to " + inQuotes(".wav") + " or " +
                   inQuotes(".aiff") + " files, not " + inQuotes(plan.extension) + " ones.");
    }

    const AudioSettingValue* rateValue = find(settings, AVSampleRateKey);
    if (rateValue == nullptr) {
        return bad("The settings don't give a sample rate (" + inQuotes(AVSampleRateKey) + ").");
    }
    if (std::holds_alternative<bool>(*rateValue)) {
        return bad("The setting " + inQuotes(AVSampleRateKey) + " must be a number of hertz.");
    }
    const auto rate = wholeNumber(*rateValue);
    if (!rate || *rate < 1 || *rate > kMaxSampleRate) {
        const double shown = std::holds_alternative<double>(*rateValue)
                                 ? std::get<double>(*rateValue)
                                 : double(std::get<std::int64_t>(*rateValue));
        return bad("The sample rate " + numberText(shown) +
                   " Hz is not valid; it must be a whole number of hertz from 1 to " +
                   std::to_string(kMaxSampleRate) + ".");
    }
    plan.sampleRate = int(*rate);

    const AudioSettingValue* channelsValue = find(settings, AVNumberOfChannelsKey);
    if (channelsValue == nullptr) {
        return bad("The settings don't give a channel count (" + inQuotes(AVNumberOfChannelsKey) +
                   ").");
    }
    const auto channels =
        std::holds_alternative<bool>(*channelsValue) ? std::nullopt : wholeNumber(*channelsValue);
    if (!channels) {
        return bad("The setting " + inQuotes(AVNumberOfChannelsKey) + " must be a whole number.");
    }
    if (*channels < 1 || *channels > kMaxChannels) {
        return bad("The channel count " + std::to_string(*channels) +
                   " is not valid; it must be from 1 to " + std::to_string(kMaxChannels) + ".");
    }
    plan.channels = int(*channels);

    if (isPcm) {
        const auto layout = checkPcmLayout(settings, plan.container, plan.extension);
        if (!layout) {
            return Unexpected(layout.error());
        }
        plan.codec =
            plan.container == Container::aiff ? AV_CODEC_ID_PCM_S16BE : AV_CODEC_ID_PCM_S16LE;
        plan.bitRate = std::int64_t(plan.sampleRate) * plan.channels * kPcmBitDepth;
        return plan;
    }

    if (!aacSupportsRate(plan.sampleRate)) {
        return bad("AAC can't be written at " + std::to_string(plan.sampleRate) +
                   " Hz; use a standard rate such as 44100 or 48000 Hz.");
    }
    plan.codec = AV_CODEC_ID_AAC;
    plan.bitRate = kDefaultAacBitRate;
    if (const AudioSettingValue* bitRateValue = find(settings, AVEncoderBitRateKey)) {
        const auto bitRate =
            std::holds_alternative<bool>(*bitRateValue) ? std::nullopt : wholeNumber(*bitRateValue);
        if (!bitRate || *bitRate < 8000 ||
            *bitRate > 6144LL * plan.sampleRate / 1024 * plan.channels) {
            return bad("The setting " + inQuotes(AVEncoderBitRateKey) +
                       " must be a bit rate the AAC encoder can reach at " +
                       std::to_string(plan.sampleRate) + " Hz with " +
                       std::to_string(plan.channels) + " channels.");
        }
        plan.bitRate = *bitRate;
    }
    return plan;
}

// 16-bit sample of a float, no dither: full scale is 32768, clipped to the int16 range.
inline std::int16_t toInt16(float x) {
    float y = x * 32768.0f;
    y = y < 32767.0f ? y : 32767.0f;
    y = y > -32768.0f ? y : -32768.0f;
    y = y == y ? y : 0.0f;  // NaN becomes silence rather than a full-scale click
    return std::int16_t(std::lrint(y));
}

inline std::int16_t swapBytes(std::int16_t v) {
    const auto u = std::uint16_t(v);
    return std::int16_t(std::uint16_t((u >> 8) | (u << 8)));
}

}  // namespace

/// The open muxer and, for AAC, the encoder with its frame being filled.
///
/// Allocation: everything is allocated in `setUp`; `write` reuses the frame, the packet and the
/// PCM scratch (FFmpeg itself still makes small allocations per encoded packet).
struct AudioFile::Impl {
    std::filesystem::path url;
    AudioFormat processingFormat;
    Plan plan;

    AVFormatContext* muxer = nullptr;
    AVStream* stream = nullptr;
    AVCodecContext* encoder = nullptr;  // AAC only; PCM is converted here and muxed directly
    AVFrame* frame = nullptr;           // AAC: the frame being filled, frameSize samples
    AVPacket* packet = nullptr;
    int frameSize = 0;
    int frameFill = 0;
    std::int64_t nextPts = 0;  // in samples, of the next frame handed to the encoder
    std::vector<std::int16_t> pcmScratch;
    std::uint64_t pcmBytes = 0;
    std::int64_t framesWritten = 0;
    std::int64_t pcmTimeline = 0;  // in samples, of the next PCM packet, refused ones included
    // WAV and AIFF: the header's sizes follow the data once a second, for files cut short.
    std::optional<PcmHeaderRefresh> headerRefresh;
    std::int64_t nextHeaderRefresh = 0;  // in frames written
    std::uint64_t headerBytes = 0;       // before the first sample
    std::uint64_t sizeLimit = kPlainHeaderLimit;
    // M4A: written as fragments of at most a second, each flushed and synced as it is cut.
    std::optional<Mp4Fragments> fragments;
    std::uint64_t fragmentDuration = 0;  // of the samples in the fragment being filled
    bool open = false;

    Impl(std::filesystem::path path, const Plan& p)
        : url(std::move(path)),
          processingFormat(*AudioFormat::standard(p.sampleRate, ChannelCount(p.channels))),
          plan(p) {}

    ~Impl() { release(); }

    AVError error(const std::string& what, int avError) const {
        return failure(codeOf(avError),
                       what + " " + inQuotes(url.string()) + ": " + avErrorText(avError));
    }

    Expected<void, AVError> setUp();
    Expected<void, AVError> setUpEncoder();
    Expected<void, AVError> writePcm(const float* const* data, bool interleaved, FrameCount frames);
    Expected<void, AVError> writeAac(const float* const* data, bool interleaved, FrameCount frames);
    Expected<void, AVError> encode(AVFrame* input);
    Expected<void, AVError> cutFragment();
    Expected<void, AVError> finish();
    void release();
};

Expected<void, AVError> AudioFile::Impl::setUpEncoder() {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (codec == nullptr) {
        return Unexpected(failure(kAudioFileUnsupportedDataFormatError,
                                  "This build of FFmpeg has no AAC encoder."));
    }
    encoder = avcodec_alloc_context3(codec);
    frame = av_frame_alloc();
    if (encoder == nullptr || frame == nullptr) {
        return Unexpected(error("Could not set up the encoder for", AVERROR(ENOMEM)));
    }
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = plan.sampleRate;
    encoder->time_base = AVRational{1, plan.sampleRate};
    encoder->bit_rate = plan.bitRate;
    encoder->profile = FF_PROFILE_AAC_LOW;
    av_channel_layout_default(&encoder->ch_layout, plan.channels);
    if (muxer->oformat->flags & AVFMT_GLOBALHEADER) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    int rc = avcodec_open2(encoder, codec, nullptr);
    if (rc < 0) {
        return Unexpected(failure(kAudioFileUnsupportedDataFormatError,
                                  "The AAC encoder can't encode " + std::to_string(plan.channels) +
                                      " channels at " + std::to_string(plan.sampleRate) +
                                      " Hz: " + avErrorText(rc)));
    }
    rc = avcodec_parameters_from_context(stream->codecpar, encoder);
    if (rc < 0) {
        return Unexpected(error("Could not set up the encoder for", rc));
    }
    stream->time_base = encoder->time_base;

    frameSize = encoder->frame_size > 0 ? encoder->frame_size : 1024;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = plan.sampleRate;
    frame->nb_samples = frameSize;
    rc = av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout);
    if (rc >= 0) {
        rc = av_frame_get_buffer(frame, 0);
    }
    if (rc < 0) {
        return Unexpected(error("Could not set up the encoder for", rc));
    }
    return {};
}

Expected<void, AVError> AudioFile::Impl::setUp() {
    const char* muxerName = plan.container == Container::m4a   ? "ipod"
                            : plan.container == Container::wav ? "wav"
                                                               : "aiff";
    int rc = avformat_alloc_output_context2(&muxer, nullptr, muxerName, url.c_str());
    if (rc < 0 || muxer == nullptr) {
        return Unexpected(error("Could not create the file", rc < 0 ? rc : AVERROR(ENOMEM)));
    }
    stream = avformat_new_stream(muxer, nullptr);
    packet = av_packet_alloc();
    if (stream == nullptr || packet == nullptr) {
        return Unexpected(error("Could not create the file", AVERROR(ENOMEM)));
    }

    if (plan.codec == AV_CODEC_ID_AAC) {
        const auto ready = setUpEncoder();
        if (!ready) {
            return ready;
        }
    } else {
        AVCodecParameters* par = stream->codecpar;
        par->codec_type = AVMEDIA_TYPE_AUDIO;
        par->codec_id = plan.codec;
        par->format = AV_SAMPLE_FMT_S16;
        par->sample_rate = plan.sampleRate;
        par->bits_per_coded_sample = kPcmBitDepth;
        par->bits_per_raw_sample = kPcmBitDepth;
        par->block_align = plan.channels * kPcmBitDepth / 8;
        par->bit_rate = plan.bitRate;
        av_channel_layout_default(&par->ch_layout, plan.channels);
        stream->time_base = AVRational{1, plan.sampleRate};
        pcmScratch.resize(std::size_t(kPcmChunkFrames) * plan.channels);
    }

    // The "file:" prefix keeps a colon in the name from being read as a protocol.
    const std::string target = "file:" + url.string();
    rc = avio_open(&muxer->pb, target.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) {
        return Unexpected(error("Could not create the file", rc));
    }

    AVDictionary* options = nullptr;
    if (plan.container == Container::wav) {
        // Past 4 GB (about six hours of stereo) the header turns into RF64 instead of wrapping.
        av_dict_set(&options, "rf64", "auto", 0);
    } else if (plan.container == Container::m4a) {
        // The edit list that trims the encoder's priming and padding is in movie time; at the
        // default millisecond scale it would cut the end to the millisecond, not the frame.
        av_dict_set_int(&options, "movie_timescale", plan.sampleRate, 0);
        // Fragments cut here, so that each is flushed and synced as it is cut. The mfra index at
        // the end would only be in the way of the plain movie the close makes of them.
        av_dict_set(&options, "movflags", "+frag_custom+empty_moov+default_base_moof+skip_trailer",
                    0);
    }
    rc = avformat_write_header(muxer, &options);
    av_dict_free(&options);
    if (rc < 0) {
        return Unexpected(error("Could not write the header of", rc));
    }
    avio_flush(muxer->pb);
    if (muxer->pb->error < 0) {
        return Unexpected(error("Could not write the header of", muxer->pb->error));
    }
    headerBytes = std::uint64_t(avio_tell(muxer->pb));
    if (plan.container == Container::m4a) {
        // Without it the file is still written as fragments; only the close can't index them.
        fragments = Mp4Fragments::open(url);
    } else {
        headerRefresh = PcmHeaderRefresh::open(url,
                                               plan.container == Container::aiff
                                                   ? PcmHeaderRefresh::Layout::aiff
                                                   : PcmHeaderRefresh::Layout::wav,
                                               headerBytes);
        nextHeaderRefresh = plan.sampleRate;
    }
    open = true;
    return {};
}

Expected<void, AVError> AudioFile::Impl::writePcm(const float* const* data, bool interleaved,
                                                  FrameCount frames) {
    const int channels = plan.channels;
    const bool bigEndian = plan.codec == AV_CODEC_ID_PCM_S16BE;
    const std::uint64_t bytes = std::uint64_t(frames) * channels * sizeof(std::int16_t);
    if (plan.container == Container::aiff && headerBytes - 8 + pcmBytes + bytes > sizeLimit) {
        // The recording ends here, as on a full disk, but with a file that is complete.
        const auto finished = finish();
        if (!finished) {
            return finished;
        }
        return Unexpected(
            failure(kSizeLimitReached,
                    localized("AudioFile",
                              "Recording stopped: AIFF files can\u2019t grow past 4 GB. Choose WAV "
                              "or M4A for longer recordings.")));
    }
    FrameCount done = 0;
    while (done < frames) {
        const int n = int(std::min<FrameCount>(kPcmChunkFrames, frames - done));
        std::int16_t* out = pcmScratch.data();
        if (interleaved) {
            const float* in = data[0] + std::size_t(done) * channels;
            const int count = n * channels;
            for (int i = 0; i < count; ++i) {
                out[i] = toInt16(in[i]);
            }
        } else {
            for (int ch = 0; ch < channels; ++ch) {
                const float* in = data[ch] + done;
                for (int i = 0; i < n; ++i) {
                    out[i * channels + ch] = toInt16(in[i]);
                }
            }
        }
        if (bigEndian) {
            const int count = n * channels;
            for (int i = 0; i < count; ++i) {
                out[i] = swapBytes(out[i]);
            }
        }

        // A packet borrowing the scratch: the muxer writes it straight through, no copy.
        AVPacket* pkt = packet;
        pkt->buf = nullptr;
        pkt->data = reinterpret_cast<std::uint8_t*>(out);
        pkt->size = n * channels * int(sizeof(std::int16_t));
        pkt->stream_index = stream->index;
        pkt->flags = AV_PKT_FLAG_KEY;
        pkt->pts = av_rescale_q(pcmTimeline, AVRational{1, plan.sampleRate}, stream->time_base);
        pkt->dts = pkt->pts;
        pkt->duration = av_rescale_q(n, AVRational{1, plan.sampleRate}, stream->time_base);
        const int rc = av_write_frame(muxer, pkt);
        // The timeline moves on even for a refused packet, so later writes stay in order.
        pcmTimeline += n;
        pkt->data = nullptr;
        pkt->size = 0;
        if (rc < 0) {
            return Unexpected(error("Could not write to the file", rc));
        }
        done += FrameCount(n);
    }
    pcmBytes += bytes;
    return {};
}

Expected<void, AVError> AudioFile::Impl::encode(AVFrame* input) {
    if (input != nullptr) {
        input->pts = nextPts;
        nextPts += input->nb_samples;
    }
    int rc = avcodec_send_frame(encoder, input);
    if (rc < 0) {
        return Unexpected(error("The AAC encoder failed on", rc));
    }
    for (;;) {
        rc = avcodec_receive_packet(encoder, packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
            return {};
        }
        if (rc < 0) {
            return Unexpected(error("The AAC encoder failed on", rc));
        }
        av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        const auto duration = std::uint32_t(packet->duration > 0 ? packet->duration : frameSize);
        const auto bytes = std::uint32_t(packet->size);
        if (fragmentDuration + duration > std::uint64_t(plan.sampleRate)) {
            const auto cut = cutFragment();
            if (!cut) {
                av_packet_unref(packet);
                return cut;
            }
        }
        rc = av_write_frame(muxer, packet);
        av_packet_unref(packet);
        if (rc < 0) {
            return Unexpected(error("Could not write to the file", rc));
        }
        fragmentDuration += duration;
        if (fragments) {
            fragments->addSample(bytes, duration);
        }
    }
}

Expected<void, AVError> AudioFile::Impl::cutFragment() {
    // The muxer holds the fragment's samples until the cut, so it is written from here on.
    const auto moofAt = std::uint64_t(avio_tell(muxer->pb));
    const int rc = av_write_frame(muxer, nullptr);
    avio_flush(muxer->pb);
    if (rc < 0 || muxer->pb->error < 0) {
        return Unexpected(error("Could not write to the file", rc < 0 ? rc : muxer->pb->error));
    }
    fragmentDuration = 0;
    // A refused sync costs only crash safety; the next one may succeed.
    if (fragments) {
        (void)fragments->fragmentWritten(moofAt, std::uint64_t(avio_tell(muxer->pb)));
    }
    return {};
}

Expected<void, AVError> AudioFile::Impl::writeAac(const float* const* data, bool interleaved,
                                                  FrameCount frames) {
    const int channels = plan.channels;
    FrameCount done = 0;
    while (done < frames) {
        if (frameFill == 0) {
            // The encoder has let go of the last frame by now, so this doesn't copy.
            const int rc = av_frame_make_writable(frame);
            if (rc < 0) {
                return Unexpected(error("The AAC encoder failed on", rc));
            }
        }
        const int n = int(std::min<FrameCount>(FrameCount(frameSize - frameFill), frames - done));
        for (int ch = 0; ch < channels; ++ch) {
            float* out = reinterpret_cast<float*>(frame->extended_data[ch]) + frameFill;
            if (interleaved) {
                const float* in = data[0] + std::size_t(done) * channels + ch;
                for (int i = 0; i < n; ++i) {
                    out[i] = in[std::size_t(i) * channels];
                }
            } else {
                std::memcpy(out, data[ch] + done, std::size_t(n) * sizeof(float));
            }
        }
        frameFill += n;
        done += FrameCount(n);
        if (frameFill == frameSize) {
            frame->nb_samples = frameSize;
            frameFill = 0;
            const auto encoded = encode(frame);
            if (!encoded) {
                return encoded;
            }
        }
    }
    return {};
}

Expected<void, AVError> AudioFile::Impl::finish() {
    Expected<void, AVError> result;
    const auto keepFirst = [&](Expected<void, AVError> step) {
        if (result && !step) {
            result = std::move(step);
        }
    };
    if (encoder != nullptr) {
        if (frameFill > 0) {
            // The encoder takes a short last frame; the container's edit list trims the rest.
            const int rc = av_frame_make_writable(frame);
            if (rc < 0) {
                keepFirst(Unexpected(error("The AAC encoder failed on", rc)));
            } else {
                frame->nb_samples = frameFill;
                frameFill = 0;
                keepFirst(encode(frame));
            }
        }
        keepFirst(encode(nullptr));
        if (fragmentDuration > 0) {
            keepFirst(cutFragment());
        }
    }
    const int rc = av_write_trailer(muxer);
    if (rc < 0) {
        keepFirst(Unexpected(error("Could not finish the file", rc)));
    }
    const auto fileEnd = std::uint64_t(avio_tell(muxer->pb));
    const int closed = avio_closep(&muxer->pb);
    if (closed < 0) {
        keepFirst(Unexpected(error("Could not finish the file", closed)));
    }
    if (result && fragments && encoder != nullptr) {
        // The priming and the padding are in the track's time, which is the encoder's.
        const auto unfinished =
            fragments->finish(fileEnd, std::uint64_t(std::max(0, encoder->initial_padding)),
                              std::uint64_t(framesWritten));
        if (unfinished) {
            keepFirst(Unexpected(failure(
                kAudioFileUnspecifiedError,
                "Could not finish the file " + inQuotes(url.string()) + ": " + *unfinished + ".")));
        }
    }
    // The trailer's sizes again, RF64 past the limit, and synced: the header is ours to the end.
    if (result && headerRefresh &&
        !headerRefresh->refresh(pcmBytes, std::uint64_t(framesWritten))) {
        keepFirst(
            Unexpected(error("Could not finish the file", AVERROR(errno != 0 ? errno : EIO))));
    }
    fragments.reset();
    headerRefresh.reset();
    open = false;
    release();
    return result;
}

void AudioFile::Impl::release() {
    if (muxer != nullptr) {
        if (muxer->pb != nullptr) {
            avio_closep(&muxer->pb);
        }
        avformat_free_context(muxer);
        muxer = nullptr;
        stream = nullptr;
    }
    avcodec_free_context(&encoder);
    av_frame_free(&frame);
    av_packet_free(&packet);
    std::vector<std::int16_t>().swap(pcmScratch);
}

AudioFile::AudioFile(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

AudioFile::~AudioFile() {
    if (impl_ && impl_->open) {
        (void)impl_->finish();
    }
}

Expected<std::unique_ptr<AudioFile>, AVError> AudioFile::createForWriting(
    const std::filesystem::path& url, const AudioSettings& settings) {
    // The program keeps no log: every failure reaches the user as an error instead.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_QUIET); });
    const auto plan = planFor(url, settings);
    if (!plan) {
        return Unexpected(plan.error());
    }
    auto impl = std::make_unique<Impl>(url, plan.value());
    const auto ready = impl->setUp();
    if (!ready) {
        const bool created = impl->muxer != nullptr && impl->muxer->pb != nullptr;
        impl->release();
        if (created) {
            std::error_code ignored;
            std::filesystem::remove(url, ignored);
        }
        return Unexpected(ready.error());
    }
    return std::unique_ptr<AudioFile>(new AudioFile(std::move(impl)));
}

const std::filesystem::path& AudioFile::url() const {
    return impl_->url;
}

const AudioFormat& AudioFile::processingFormat() const {
    return impl_->processingFormat;
}

Expected<void, AVError> AudioFile::write(const PCMBuffer& buffer) {
    Impl& f = *impl_;
    if (!f.open) {
        return Unexpected(
            failure(kAudioFileNotOpenError, "The file " + inQuotes(f.url.string()) +
                                                " is closed; nothing more can be written to it."));
    }
    const AudioFormat& format = buffer.format();
    float* const* data = buffer.floatChannelData();
    if (data == nullptr || format.sampleRate() != f.processingFormat.sampleRate() ||
        format.channelCount() != f.processingFormat.channelCount()) {
        return Unexpected(failure(kAudioFileUnsupportedDataFormatError,
                                  "The audio is " + describe(format) + ", but the file " +
                                      inQuotes(f.url.string()) + " takes " +
                                      describe(f.processingFormat) + " audio."));
    }
    const FrameCount frames = buffer.frameLength();
    if (frames == 0) {
        return {};
    }
    const auto written = f.encoder != nullptr ? f.writeAac(data, format.isInterleaved(), frames)
                                              : f.writePcm(data, format.isInterleaved(), frames);
    if (!written) {
        return written;
    }
    f.framesWritten += frames;
    if (f.encoder == nullptr) {
        // Hand each buffer to the system at once: should the program die, what was recorded
        // up to the last buffer is on disk rather than in the muxer's buffer. (AAC reaches the
        // disk a fragment at a time.)
        avio_flush(f.muxer->pb);
        if (f.muxer->pb->error < 0) {
            return Unexpected(f.error("Could not write to the file", f.muxer->pb->error));
        }
        if (f.headerRefresh && f.framesWritten >= f.nextHeaderRefresh) {
            // A refused refresh costs only crash safety; the trailer still writes the sizes.
            f.headerRefresh->refresh(f.pcmBytes, std::uint64_t(f.framesWritten));
            f.nextHeaderRefresh = f.framesWritten + f.plan.sampleRate;
        }
    }
    return written;
}

Expected<void, AVError> AudioFile::close() {
    if (!impl_->open) {
        return Unexpected(
            failure(kAudioFileNotOpenError,
                    "The file " + inQuotes(impl_->url.string()) + " is already closed."));
    }
    return impl_->finish();
}

std::int64_t AudioFile::framesWritten() const {
    return impl_->framesWritten;
}

void AudioFile::setHeaderSizeLimit(std::uint64_t bytes) {
    impl_->sizeLimit = std::min(bytes, kPlainHeaderLimit);
    if (impl_->headerRefresh) {
        impl_->headerRefresh->setFormLimit(impl_->sizeLimit);
    }
}

}  // namespace bw
