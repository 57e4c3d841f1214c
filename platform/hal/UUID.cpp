#include "platform/hal/UUID.h"

#include <random>

namespace bw {

UUID::UUID() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    for (std::size_t i = 0; i < bytes_.size(); i += 8) {
        std::uint64_t word = generator();
        for (std::size_t j = 0; j < 8; ++j) {
            bytes_[i + j] = std::uint8_t(word >> (8 * j));
        }
    }
    bytes_[6] = std::uint8_t((bytes_[6] & 0x0F) | 0x40);
    bytes_[8] = std::uint8_t((bytes_[8] & 0x3F) | 0x80);
}

std::string UUID::uuidString() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(digits[bytes_[i] >> 4]);
        text.push_back(digits[bytes_[i] & 0x0F]);
    }
    return text;
}

}  // namespace bw
