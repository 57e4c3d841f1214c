#include "platform/base/Localization.h"

namespace bw {

namespace {
std::function<std::string(const char*)>& lookupFunction() {
    static std::function<std::string(const char*)> lookup;
    return lookup;
}
}  // namespace

std::string localized(const char* english) {
    const auto& lookup = lookupFunction();
    return lookup ? lookup(english) : std::string(english);
}

void setLocalizationLookup(std::function<std::string(const char*)> lookup) {
    lookupFunction() = std::move(lookup);
}

}  // namespace bw
