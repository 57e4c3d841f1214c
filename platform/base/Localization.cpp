#include "platform/base/Localization.h"

namespace bw {

namespace {
using Lookup = std::function<std::string(const char*, const char*)>;

Lookup& lookupFunction() {
    static Lookup lookup;
    return lookup;
}
}  // namespace

std::string localized(const char* context, const char* english) {
    const auto& lookup = lookupFunction();
    return lookup ? lookup(context, english) : std::string(english);
}

void setLocalizationLookup(Lookup lookup) {
    lookupFunction() = std::move(lookup);
}

}  // namespace bw
