#include "platform/av/Mp4Fragments.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace bw {
namespace {

constexpr std::uint64_t kMaxMoovBytes = 1 << 20;
constexpr std::uint32_t kMax32 = std::numeric_limits<std::uint32_t>::max();

std::uint32_t be32(const std::uint8_t* at) {
    return std::uint32_t(at[0]) << 24 | std::uint32_t(at[1]) << 16 | std::uint32_t(at[2]) << 8 |
           at[3];
}

void put32(std::uint8_t* at, std::uint32_t v) {
    at[0] = std::uint8_t(v >> 24);
    at[1] = std::uint8_t(v >> 16);
    at[2] = std::uint8_t(v >> 8);
    at[3] = std::uint8_t(v);
}

void put64(std::uint8_t* at, std::uint64_t v) {
    put32(at, std::uint32_t(v >> 32));
    put32(at + 4, std::uint32_t(v));
}

bool readAll(int fd, std::uint64_t offset, std::uint8_t* out, std::size_t n) {
    while (n > 0) {
        const ssize_t got = ::pread(fd, out, n, off_t(offset));
        if (got <= 0) {
            return false;
        }
        out += got;
        n -= std::size_t(got);
        offset += std::uint64_t(got);
    }
    return true;
}

bool writeAll(int fd, std::uint64_t offset, const std::uint8_t* data, std::size_t n) {
    while (n > 0) {
        const ssize_t put = ::pwrite(fd, data, n, off_t(offset));
        if (put <= 0) {
            return false;
        }
        data += put;
        n -= std::size_t(put);
        offset += std::uint64_t(put);
    }
    return true;
}

bool isType(const std::uint8_t* header, const char* type) {
    return std::memcmp(header + 4, type, 4) == 0;
}

/// Where the box at the end of `path` lies in `bytes` (offset, size), going down from the boxes
/// directly inside `[begin, end)`; the first of each type counts. Nothing when it isn't there or a
/// box on the way overruns its parent.
std::optional<std::pair<std::size_t, std::size_t>> findBox(
    const std::vector<std::uint8_t>& bytes, std::size_t begin, std::size_t end,
    std::initializer_list<const char*> path) {
    for (const char* type : path) {
        std::optional<std::pair<std::size_t, std::size_t>> found;
        for (std::size_t at = begin; at + 8 <= end && !found;) {
            const std::size_t size = be32(bytes.data() + at);
            if (size < 8 || size > end - at) {
                return std::nullopt;
            }
            if (isType(bytes.data() + at, type)) {
                found = {at, size};
            }
            at += size;
        }
        if (!found) {
            return std::nullopt;
        }
        begin = found->first + 8;
        end = found->first + found->second;
    }
    return std::pair{begin - 8, end - begin + 8};
}

/// Writes boxes into a byte vector; `end` fills in the size `begin` left open.
class BoxWriter {
public:
    std::size_t begin(const char* type) {
        const std::size_t at = bytes_.size();
        u32(0);
        bytes_.insert(bytes_.end(), type, type + 4);
        return at;
    }
    std::size_t beginFull(const char* type, std::uint8_t version, std::uint32_t flags = 0) {
        const std::size_t at = begin(type);
        u32(std::uint32_t(version) << 24 | flags);
        return at;
    }
    void end(std::size_t at) { put32(bytes_.data() + at, std::uint32_t(bytes_.size() - at)); }
    void u16(std::uint16_t v) {
        bytes_.push_back(std::uint8_t(v >> 8));
        bytes_.push_back(std::uint8_t(v));
    }
    void u32(std::uint32_t v) {
        bytes_.resize(bytes_.size() + 4);
        put32(bytes_.data() + bytes_.size() - 4, v);
    }
    void u64(std::uint64_t v) {
        bytes_.resize(bytes_.size() + 8);
        put64(bytes_.data() + bytes_.size() - 8, v);
    }
    void raw(const std::vector<std::uint8_t>& box) {
        bytes_.insert(bytes_.end(), box.begin(), box.end());
    }
    void reserve(std::size_t n) { bytes_.reserve(n); }
    std::vector<std::uint8_t> take() { return std::move(bytes_); }

private:
    std::vector<std::uint8_t> bytes_;
};

/// An mvhd, tkhd or mdhd with its duration set; a version 0 box turns version 1 when the duration
/// needs 64 bits. `between` is what lies between the two times and the duration.
std::vector<std::uint8_t> withDuration(const std::vector<std::uint8_t>& box, std::size_t between,
                                       std::uint64_t duration) {
    std::vector<std::uint8_t> out = box;
    if (box[8] == 1) {
        put64(out.data() + 12 + 16 + between, duration);
        return out;
    }
    if (duration <= kMax32) {
        put32(out.data() + 12 + 8 + between, std::uint32_t(duration));
        return out;
    }
    const std::size_t tail = 12 + 8 + between + 4;  // after the version 0 duration
    BoxWriter w;
    const std::size_t at = w.begin(reinterpret_cast<const char*>(box.data() + 4));
    w.u32(std::uint32_t(1) << 24 | (be32(box.data() + 8) & 0xFFFFFF));
    w.u64(be32(box.data() + 12));
    w.u64(be32(box.data() + 16));
    std::vector<std::uint8_t> body = w.take();
    body.insert(body.end(), box.begin() + 20, box.begin() + long(20 + between));
    body.resize(body.size() + 8);
    put64(body.data() + body.size() - 8, duration);
    body.insert(body.end(), box.begin() + long(tail), box.end());
    put32(body.data() + at, std::uint32_t(body.size()));
    return body;
}

}  // namespace

std::optional<Mp4Fragments> Mp4Fragments::open(const std::filesystem::path& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        return std::nullopt;
    }
    Mp4Fragments fragments(descriptor);
    struct stat info {};
    if (::fstat(descriptor, &info) != 0) {
        return std::nullopt;
    }
    const auto fileSize = std::uint64_t(info.st_size);
    std::vector<std::uint8_t> moov;
    for (std::uint64_t at = 0; at + 8 <= fileSize && moov.empty();) {
        std::uint8_t header[8];
        if (!readAll(descriptor, at, header, 8)) {
            return std::nullopt;
        }
        const std::uint64_t size = be32(header);
        if (size < 8 || at + size > fileSize || (isType(header, "moov") && size > kMaxMoovBytes)) {
            return std::nullopt;
        }
        if (isType(header, "moov")) {
            moov.resize(size);
            if (!readAll(descriptor, at, moov.data(), size)) {
                return std::nullopt;
            }
            fragments.moovAt_ = at;
            fragments.moovSize_ = size;
        }
        at += size;
    }
    if (moov.empty()) {
        return std::nullopt;
    }

    const auto copy = [&](std::initializer_list<const char*> path) {
        const auto box = findBox(moov, 8, moov.size(), path);
        return box ? std::vector<std::uint8_t>(moov.begin() + long(box->first),
                                               moov.begin() + long(box->first + box->second))
                   : std::vector<std::uint8_t>();
    };
    Mp4Fragments& f = fragments;
    f.mvhd_ = copy({"mvhd"});
    f.tkhd_ = copy({"trak", "tkhd"});
    f.mdhd_ = copy({"trak", "mdia", "mdhd"});
    f.hdlr_ = copy({"trak", "mdia", "hdlr"});
    f.smhd_ = copy({"trak", "mdia", "minf", "smhd"});
    f.dinf_ = copy({"trak", "mdia", "minf", "dinf"});
    f.stsd_ = copy({"trak", "mdia", "minf", "stbl", "stsd"});
    f.udta_ = copy({"udta"});
    // One track: the index below is that of the first.
    const auto trak = findBox(moov, 8, moov.size(), {"trak"});
    const bool oneTrack = trak && !findBox(moov, trak->first + trak->second, moov.size(), {"trak"});
    // The time scale follows the two times, 32 or 64 bits each as the version says.
    const auto timescale = [](const std::vector<std::uint8_t>& box) -> std::uint32_t {
        const std::size_t at = box[8] == 1 ? 28 : 20;
        return box.size() >= at + 8 ? be32(box.data() + at) : 0;
    };
    if (!oneTrack || f.tkhd_.size() < 36 || f.hdlr_.empty() || f.smhd_.empty() || f.dinf_.empty() ||
        f.stsd_.empty() || f.mvhd_.size() < 32 || f.mdhd_.size() < 32) {
        return std::nullopt;
    }
    f.movieTimescale_ = timescale(f.mvhd_);
    f.trackTimescale_ = timescale(f.mdhd_);
    if (f.movieTimescale_ == 0 || f.trackTimescale_ == 0) {
        return std::nullopt;
    }
    return fragments;
}

Mp4Fragments::Descriptor::~Descriptor() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

Mp4Fragments::Descriptor& Mp4Fragments::Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void Mp4Fragments::addSample(std::uint32_t bytes, std::uint32_t duration) {
    sampleSizes_.push_back(bytes);
    if (!durations_.empty() && durations_.back().duration == duration) {
        ++durations_.back().count;
    } else {
        durations_.push_back({1, duration});
    }
    trackDuration_ += duration;
    pendingBytes_ += bytes;
    ++pendingSamples_;
}

bool Mp4Fragments::fragmentWritten(std::uint64_t moofAt, std::uint64_t end) {
    if (pendingSamples_ > 0) {
        fragments_.push_back({moofAt, end - pendingBytes_, pendingSamples_});
    }
    pendingBytes_ = 0;
    pendingSamples_ = 0;
    return ::fdatasync(descriptor_.get()) == 0;
}

bool Mp4Fragments::verify() const {
    std::uint8_t header[8];
    if (!readAll(descriptor_.get(), moovAt_, header, 8) || !isType(header, "moov")) {
        return false;
    }
    std::size_t sample = 0;
    for (const Fragment& fragment : fragments_) {
        std::uint64_t bytes = 0;
        for (std::uint32_t i = 0; i < fragment.samples; ++i) {
            bytes += sampleSizes_[sample++];
        }
        if (!readAll(descriptor_.get(), fragment.moofAt, header, 8) || !isType(header, "moof") ||
            !readAll(descriptor_.get(), fragment.chunkAt - 8, header, 8) ||
            !isType(header, "mdat") || be32(header) != bytes + 8) {
            return false;
        }
    }
    return sample == sampleSizes_.size();
}

std::vector<std::uint8_t> Mp4Fragments::movieBox(std::uint64_t mediaStart,
                                                 std::uint64_t presented) const {
    const std::uint64_t movieDuration =
        (presented * movieTimescale_ + trackTimescale_ / 2) / trackTimescale_;
    const bool wideOffsets = fragments_.back().chunkAt > kMax32;
    BoxWriter w;
    w.reserve(sampleSizes_.size() * 4 + fragments_.size() * 20 + durations_.size() * 8 + 4096);
    const std::size_t moov = w.begin("moov");
    w.raw(withDuration(mvhd_, 4, movieDuration));
    const std::size_t trak = w.begin("trak");
    w.raw(withDuration(tkhd_, 8, movieDuration));

    // The presentation: from past the encoder's priming, as long as the audio that came in.
    const std::size_t edts = w.begin("edts");
    const bool wideEdit = movieDuration > kMax32 || mediaStart > kMax32;
    const std::size_t elst = w.beginFull("elst", wideEdit ? 1 : 0);
    w.u32(1);
    if (wideEdit) {
        w.u64(movieDuration);
        w.u64(mediaStart);
    } else {
        w.u32(std::uint32_t(movieDuration));
        w.u32(std::uint32_t(mediaStart));
    }
    w.u32(0x00010000);  // rate 1.0
    w.end(elst);
    w.end(edts);

    const std::size_t mdia = w.begin("mdia");
    w.raw(withDuration(mdhd_, 4, trackDuration_));
    w.raw(hdlr_);
    const std::size_t minf = w.begin("minf");
    w.raw(smhd_);
    w.raw(dinf_);
    const std::size_t stbl = w.begin("stbl");
    w.raw(stsd_);

    const std::size_t stts = w.beginFull("stts", 0);
    w.u32(std::uint32_t(durations_.size()));
    for (const Run& run : durations_) {
        w.u32(run.count);
        w.u32(run.duration);
    }
    w.end(stts);

    // One chunk per fragment; a new entry wherever the samples per chunk change.
    std::uint32_t entries = 0;
    for (std::size_t i = 0; i < fragments_.size(); ++i) {
        entries += i == 0 || fragments_[i].samples != fragments_[i - 1].samples;
    }
    const std::size_t stsc = w.beginFull("stsc", 0);
    w.u32(entries);
    for (std::size_t i = 0; i < fragments_.size(); ++i) {
        if (i == 0 || fragments_[i].samples != fragments_[i - 1].samples) {
            w.u32(std::uint32_t(i + 1));
            w.u32(fragments_[i].samples);
            w.u32(1);
        }
    }
    w.end(stsc);

    const std::size_t stsz = w.beginFull("stsz", 0);
    w.u32(0);
    w.u32(std::uint32_t(sampleSizes_.size()));
    for (const std::uint32_t size : sampleSizes_) {
        w.u32(size);
    }
    w.end(stsz);

    const std::size_t stco = w.beginFull(wideOffsets ? "co64" : "stco", 0);
    w.u32(std::uint32_t(fragments_.size()));
    for (const Fragment& fragment : fragments_) {
        if (wideOffsets) {
            w.u64(fragment.chunkAt);
        } else {
            w.u32(std::uint32_t(fragment.chunkAt));
        }
    }
    w.end(stco);

    // Every AAC frame needs the one before it to decode: a roll of -1 for all samples.
    const std::size_t sgpd = w.beginFull("sgpd", 1);
    w.u32(0x726F6C6C);  // 'roll'
    w.u32(2);
    w.u32(1);
    w.u16(0xFFFF);
    w.end(sgpd);
    const std::size_t sbgp = w.beginFull("sbgp", 0);
    w.u32(0x726F6C6C);
    w.u32(1);
    w.u32(std::uint32_t(sampleSizes_.size()));
    w.u32(1);
    w.end(sbgp);

    w.end(stbl);
    w.end(minf);
    w.end(mdia);
    w.end(trak);
    if (!udta_.empty()) {
        w.raw(udta_);
    }
    w.end(moov);
    return w.take();
}

std::optional<std::string> Mp4Fragments::finish(std::uint64_t fileEnd, std::uint64_t mediaStart,
                                                std::uint64_t presented) {
    if (fragments_.empty()) {
        return std::nullopt;  // no audio: the empty movie says so already
    }
    if (pendingSamples_ > 0 || !verify()) {
        return "the fragments on disk are not the ones written";
    }
    // Each step leaves a file that plays, whatever part of it a crash or a power cut keeps: the
    // new moov first, unseen behind the empty one; then one free box from the empty moov to the
    // new one hides both it and the fragments at once; then the fragments' moofs become free
    // space of their own, and last the free box shrinks back to where the empty moov was.
    const std::vector<std::uint8_t> moov = movieBox(mediaStart, presented);
    std::uint8_t spanning[16] = {0, 0, 0, 1, 'f', 'r', 'e', 'e'};
    put32(spanning + 8, std::uint32_t((fileEnd - moovAt_) >> 32));
    put32(spanning + 12, std::uint32_t(fileEnd - moovAt_));
    std::uint8_t ownSize[8] = {0, 0, 0, 0, 'f', 'r', 'e', 'e'};
    put32(ownSize, std::uint32_t(moovSize_));
    const int fd = descriptor_.get();
    bool written = writeAll(fd, fileEnd, moov.data(), moov.size()) && ::fdatasync(fd) == 0 &&
                   writeAll(fd, moovAt_, spanning, sizeof spanning) && ::fdatasync(fd) == 0;
    for (std::size_t i = 0; written && i < fragments_.size(); ++i) {
        written = writeAll(fd, fragments_[i].moofAt + 4, ownSize + 4, 4);
    }
    written = written && ::fdatasync(fd) == 0 && writeAll(fd, moovAt_, ownSize, sizeof ownSize) &&
              ::fdatasync(fd) == 0;
    if (!written) {
        return std::string("could not write its index: ") + std::strerror(errno);
    }
    return std::nullopt;
}

}  // namespace bw
