#include "tests/support/DecodedAudio.h"
#include <algorithm>
#include <fstream>
#include <iterator>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <cstring>
#include <memory>

namespace bw::test {
namespace {

// FFmpeg's freeing functions all take the address of the pointer.
template <auto free>
struct Freeing {
    template <class T>
    void operator()(T* object) const {
        free(&object);
    }
};

template <class T>
float sampleAt(const std::uint8_t* data, std::size_t index) {
    T value;
    std::memcpy(&value, data + index * sizeof(T), sizeof(T));
    return float(value);
}

// Appends a decoded frame as floats where full scale is ±1; false for a format other than the
// 16-bit integers and floats that the files of these tests decode to.
bool appendFrame(const AVFrame& frame, DecodedAudio& out) {
    const auto format = AVSampleFormat(frame.format);
    const bool planar = av_sample_fmt_is_planar(format);
    const auto packed = av_get_packed_sample_fmt(format);
    if (packed != AV_SAMPLE_FMT_S16 && packed != AV_SAMPLE_FMT_FLT) {
        return false;
    }
    const int channels = int(out.channelsData.size());
    for (int ch = 0; ch < channels; ++ch) {
        const std::uint8_t* base = planar ? frame.extended_data[ch] : frame.extended_data[0];
        std::vector<float>& dest = out.channelsData[std::size_t(ch)];
        for (int i = 0; i < frame.nb_samples; ++i) {
            const std::size_t index = planar ? std::size_t(i) : std::size_t(i) * channels + ch;
            dest.push_back(packed == AV_SAMPLE_FMT_S16
                               ? sampleAt<std::int16_t>(base, index) / 32768.0f
                               : sampleAt<float>(base, index));
        }
    }
    return true;
}

bool drain(AVCodecContext* decoder, AVFrame* frame, DecodedAudio& out) {
    for (;;) {
        const int rc = avcodec_receive_frame(decoder, frame);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
            return true;
        }
        if (rc < 0 || !appendFrame(*frame, out)) {
            return false;
        }
        av_frame_unref(frame);
    }
}

}  // namespace

std::optional<DecodedAudio> decodeAudioFile(const std::filesystem::path& path) {
    AVFormatContext* rawInput = nullptr;
    const std::string url = "file:" + path.string();
    if (avformat_open_input(&rawInput, url.c_str(), nullptr, nullptr) < 0) {
        return std::nullopt;
    }
    std::unique_ptr<AVFormatContext, Freeing<avformat_close_input>> input(rawInput);
    if (avformat_find_stream_info(input.get(), nullptr) < 0) {
        return std::nullopt;
    }
    const AVCodec* codec = nullptr;
    const int streamIndex = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (streamIndex < 0 || codec == nullptr) {
        return std::nullopt;
    }
    const AVStream* stream = input->streams[streamIndex];
    std::unique_ptr<AVCodecContext, Freeing<avcodec_free_context>> decoder(
        avcodec_alloc_context3(codec));
    if (!decoder || avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0) {
        return std::nullopt;
    }
    // The decoder needs the stream's time base to apply the skip-samples side data.
    decoder->pkt_timebase = stream->time_base;
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0) {
        return std::nullopt;
    }

    DecodedAudio out;
    out.codecName = avcodec_get_name(stream->codecpar->codec_id);
    out.containerName = input->iformat->name;
    out.sampleRate = stream->codecpar->sample_rate;
    out.channels = stream->codecpar->ch_layout.nb_channels;
    out.bitRate = stream->codecpar->bit_rate > 0 ? stream->codecpar->bit_rate : input->bit_rate;
    out.containerSeconds = input->duration > 0 ? double(input->duration) / AV_TIME_BASE : 0;
    if (out.channels <= 0) {
        return std::nullopt;
    }
    out.channelsData.resize(std::size_t(out.channels));

    std::unique_ptr<AVPacket, Freeing<av_packet_free>> packet(av_packet_alloc());
    std::unique_ptr<AVFrame, Freeing<av_frame_free>> frame(av_frame_alloc());
    if (!packet || !frame) {
        return std::nullopt;
    }
    for (;;) {
        const int rc = av_read_frame(input.get(), packet.get());
        if (rc == AVERROR_EOF) {
            break;
        }
        if (rc < 0) {
            return std::nullopt;
        }
        const bool ours = packet->stream_index == streamIndex;
        const int sent = ours ? avcodec_send_packet(decoder.get(), packet.get()) : 0;
        av_packet_unref(packet.get());
        if (sent < 0 || (ours && !drain(decoder.get(), frame.get(), out))) {
            return std::nullopt;
        }
    }
    if (avcodec_send_packet(decoder.get(), nullptr) < 0 ||
        !drain(decoder.get(), frame.get(), out)) {
        return std::nullopt;
    }
    // Skip-samples side data trims the encoder's priming at the start; the padding of the last
    // frame is only cut by the container's duration (the MP4 edit list), which the decoder
    // doesn't apply, so cut it here.
    if (stream->duration > 0 && stream->duration != AV_NOPTS_VALUE) {
        const auto length = std::size_t(
            av_rescale_q(stream->duration, stream->time_base, AVRational{1, out.sampleRate}));
        for (auto& channel : out.channelsData) {
            if (channel.size() > length) {
                channel.resize(length);
            }
        }
    }
    // The decoder's output format is only final once it has decoded something.
    const char* formatName = av_get_sample_fmt_name(decoder->sample_fmt);
    out.sampleFormatName = formatName != nullptr ? formatName : "";
    return out;
}

std::optional<double> pcmHeaderSeconds(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
    if (bytes.size() < 12) {
        return std::nullopt;
    }
    const bool aiff = std::equal(bytes.begin(), bytes.begin() + 4, "FORM");
    const bool rf64 = std::equal(bytes.begin(), bytes.begin() + 4, "RF64");
    const auto number = [&](std::size_t at, int width) -> std::uint64_t {
        std::uint64_t value = 0;
        for (int i = 0; i < width; ++i) {
            value |= std::uint64_t(bytes[at + (aiff ? width - 1 - i : i)]) << (8 * i);
        }
        return value;
    };
    const auto size = [&](std::size_t at) { return number(at, 4); };
    // RF64: the 32-bit sizes say "see ds64", the chunk that must come first.
    const bool ds64 = rf64 && bytes.size() >= 48 && size(4) == 0xFFFFFFFF &&
                      std::equal(bytes.begin() + 12, bytes.begin() + 16, "ds64");
    if (rf64 && !ds64) {
        return std::nullopt;
    }
    if ((ds64 ? number(20, 8) : size(4)) + 8 > bytes.size()) {
        return std::nullopt;
    }
    for (std::size_t at = 12; at + 8 <= bytes.size(); at += 8 + size(at + 4) + (size(at + 4) & 1)) {
        const std::string tag(bytes.begin() + long(at), bytes.begin() + long(at) + 4);
        if (!aiff && tag == "data") {
            const std::uint64_t dataBytes =
                ds64 && size(at + 4) == 0xFFFFFFFF ? number(28, 8) : size(at + 4);
            return double(dataBytes) / (4 * 48000);
        }
        if (aiff && tag == "COMM") {
            return double(size(at + 10)) / 48000;
        }
    }
    return std::nullopt;
}

}  // namespace bw::test
