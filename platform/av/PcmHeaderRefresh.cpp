#include "platform/av/PcmHeaderRefresh.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace bw {
namespace {

constexpr std::uint64_t kMaxHeaderBytes = 1 << 16;
constexpr std::uint64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
// "RF64", form size, "WAVE", "ds64" and its size, then its RIFF, data and frame sizes.
constexpr std::size_t kRf64HeadBytes = 12 + 8 + 24;

std::uint32_t readSize(const std::uint8_t* at, bool bigEndian) {
    return bigEndian ? std::uint32_t(at[0]) << 24 | std::uint32_t(at[1]) << 16 |
                           std::uint32_t(at[2]) << 8 | at[3]
                     : std::uint32_t(at[3]) << 24 | std::uint32_t(at[2]) << 16 |
                           std::uint32_t(at[1]) << 8 | at[0];
}

void putLittle(std::uint8_t* at, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        at[i] = std::uint8_t(value >> (8 * i));
    }
}

bool writeSize(int descriptor, std::uint64_t offset, std::uint64_t value, bool bigEndian) {
    const auto v = std::uint32_t(value);
    const std::array<std::uint8_t, 4> bytes =
        bigEndian ? std::array<std::uint8_t, 4>{std::uint8_t(v >> 24), std::uint8_t(v >> 16),
                                                std::uint8_t(v >> 8), std::uint8_t(v)}
                  : std::array<std::uint8_t, 4>{std::uint8_t(v), std::uint8_t(v >> 8),
                                                std::uint8_t(v >> 16), std::uint8_t(v >> 24)};
    return ::pwrite(descriptor, bytes.data(), bytes.size(), off_t(offset)) == 4;
}

}  // namespace

PcmHeaderRefresh::PcmHeaderRefresh(int descriptor, Layout layout, std::uint64_t dataOffset)
    : descriptor_(descriptor), layout_(layout), dataOffset_(dataOffset), formLimit_(kMax32) {}

std::optional<PcmHeaderRefresh> PcmHeaderRefresh::open(const std::filesystem::path& path,
                                                       Layout layout, std::uint64_t dataOffset) {
    if (dataOffset < 12 || dataOffset > kMaxHeaderBytes) {
        return std::nullopt;
    }
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        return std::nullopt;
    }
    PcmHeaderRefresh refresh(descriptor, layout, dataOffset);
    std::vector<std::uint8_t> header(dataOffset);
    if (::pread(descriptor, header.data(), header.size(), 0) != ssize_t(header.size())) {
        return std::nullopt;
    }
    const bool aiff = layout == Layout::aiff;
    if (std::memcmp(header.data(), aiff ? "FORM" : "RIFF", 4) != 0) {
        return std::nullopt;
    }
    // Walk the chunks after the form's type to the ones whose sizes grow.
    for (std::uint64_t at = 12; at + 8 <= dataOffset;) {
        const std::uint8_t* chunk = header.data() + at;
        const std::uint64_t size = readSize(chunk + 4, aiff);
        if (!aiff && at == 12 && std::memcmp(chunk, "JUNK", 4) == 0 && size >= 28) {
            refresh.ds64Room_ = true;
        }
        if (!aiff && std::memcmp(chunk, "data", 4) == 0) {
            refresh.dataSizeAt_ = at + 4;
            break;
        }
        if (aiff && std::memcmp(chunk, "COMM", 4) == 0) {
            refresh.frameCountAt_ = at + 8 + 2;  // after numChannels
        }
        if (aiff && std::memcmp(chunk, "SSND", 4) == 0) {
            refresh.dataSizeAt_ = at + 4;
            break;
        }
        at += 8 + size + (size & 1);
    }
    if (refresh.dataSizeAt_ == 0 || (aiff && refresh.frameCountAt_ == 0)) {
        return std::nullopt;
    }
    return refresh;
}

PcmHeaderRefresh::PcmHeaderRefresh(PcmHeaderRefresh&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      layout_(other.layout_),
      dataOffset_(other.dataOffset_),
      dataSizeAt_(other.dataSizeAt_),
      frameCountAt_(other.frameCountAt_),
      ds64Room_(other.ds64Room_),
      formLimit_(other.formLimit_) {}

PcmHeaderRefresh& PcmHeaderRefresh::operator=(PcmHeaderRefresh&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = std::exchange(other.descriptor_, -1);
        layout_ = other.layout_;
        dataOffset_ = other.dataOffset_;
        dataSizeAt_ = other.dataSizeAt_;
        frameCountAt_ = other.frameCountAt_;
        ds64Room_ = other.ds64Room_;
        formLimit_ = other.formLimit_;
    }
    return *this;
}

PcmHeaderRefresh::~PcmHeaderRefresh() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

void PcmHeaderRefresh::setFormLimit(std::uint64_t bytes) {
    formLimit_ = std::min(bytes, kMax32);
}

bool PcmHeaderRefresh::refresh(std::uint64_t dataBytes, std::uint64_t frames) {
    const std::uint64_t formSize = dataOffset_ + dataBytes - 8;
    if (descriptor_ < 0) {
        return false;
    }
    const bool aiff = layout_ == Layout::aiff;
    if (formSize > formLimit_) {
        if (aiff || !ds64Room_) {
            return false;
        }
        // One write for the form and ds64, then the data size that points there: a reader sees
        // the old RIFF header or the new RF64 one.
        std::array<std::uint8_t, kRf64HeadBytes> head{};
        std::memcpy(head.data(), "RF64\xFF\xFF\xFF\xFFWAVEds64", 16);
        putLittle(head.data() + 16, 28, 4);
        putLittle(head.data() + 20, formSize, 8);
        putLittle(head.data() + 28, dataBytes, 8);
        putLittle(head.data() + 36, frames, 8);
        return ::pwrite(descriptor_, head.data(), head.size(), 0) == ssize_t(head.size()) &&
               writeSize(descriptor_, dataSizeAt_, kMax32, false) && ::fdatasync(descriptor_) == 0;
    }
    // AIFF counts the SSND chunk's offset and block size fields in its size.
    const bool written =
        writeSize(descriptor_, 4, formSize, aiff) &&
        writeSize(descriptor_, dataSizeAt_, aiff ? dataBytes + 8 : dataBytes, aiff) &&
        (!aiff || writeSize(descriptor_, frameCountAt_, frames, true));
    return written && ::fdatasync(descriptor_) == 0;
}

}  // namespace bw
