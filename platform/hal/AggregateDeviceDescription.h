#pragma once

#include <string>
#include <vector>

namespace bw {

/// The dictionary that creates an aggregate device: a device of ours made of sub-devices and taps.
/// A plain value, one field per key; the key names are given beside each field.
struct AggregateDeviceDescription {
    struct SubDevice {
        std::string uid;  // "uid"
        friend bool operator==(const SubDevice&, const SubDevice&) = default;
    };
    struct SubTap {
        bool driftCompensation = false;  // "drift"
        std::string uid;                 // "uid": the tap description's UUID string
        friend bool operator==(const SubTap&, const SubTap&) = default;
    };

    static constexpr const char* kNameKey = "name";
    static constexpr const char* kUIDKey = "uid";
    static constexpr const char* kMainSubDeviceKey = "master";
    static constexpr const char* kIsPrivateKey = "private";
    static constexpr const char* kIsStackedKey = "stacked";
    static constexpr const char* kTapAutoStartKey = "tapautostart";
    static constexpr const char* kSubDeviceListKey = "subdevices";
    static constexpr const char* kTapListKey = "taps";

    std::string name;
    std::string uid;
    std::string mainSubDevice;
    bool isPrivate = false;
    bool isStacked = false;
    bool tapAutoStart = false;
    std::vector<SubDevice> subDevices;
    std::vector<SubTap> taps;

    friend bool operator==(const AggregateDeviceDescription&,
                           const AggregateDeviceDescription&) = default;
};

}  // namespace bw
