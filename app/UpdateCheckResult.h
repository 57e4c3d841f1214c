#pragma once

#include <QString>
#include <optional>

#include "app/AppcastItem.h"

namespace bw {

/// What one update check found. A plain value.
struct UpdateCheckResult {
    enum class Outcome { upToDate, updateAvailable, failed };

    Outcome outcome = Outcome::failed;
    /// The newer release, with its page, when `outcome` is `updateAvailable`.
    std::optional<AppcastItem> update;
    /// One line for the user: that this version is the newest, which version is available, or
    /// why the check failed.
    QString message;

    friend bool operator==(const UpdateCheckResult&, const UpdateCheckResult&) = default;
};

}  // namespace bw
