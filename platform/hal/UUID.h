#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace bw {

/// A random (version 4) universally unique identifier.
class UUID {
public:
    /// A fresh identifier from the system's random source.
    UUID();

    /// Upper-case hexadecimal in the 8-4-4-4-12 form.
    std::string uuidString() const;

    friend bool operator==(const UUID&, const UUID&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace bw
