#pragma once

#include <string>

#include "platform/base/Error.h"

namespace bw {

/// An application can't be tapped because the audio system has no process object for it yet
/// (it has never played), and it can't be followed by its bundle ID either.
class ProcessTapError : public Error {
public:
    static ProcessTapError appHasNotPlayedAudio(std::string appName) {
        return ProcessTapError(std::move(appName));
    }
    const std::string& appName() const { return appName_; }

    /// "<name> has not played any audio yet. Start playback in it, then record again."
    std::string localizedDescription() const override;

private:
    explicit ProcessTapError(std::string appName) : appName_(std::move(appName)) {}
    std::string appName_;
};

}  // namespace bw
