#pragma once

#include <memory>
#include <string>

namespace bw {

/// The common face of the program's typed errors: a sentence for the user. Concrete errors derive
/// from it and keep their own fields; code that only shows an error takes an `ErrorRef`.
class Error {
public:
    virtual ~Error() = default;
    virtual std::string localizedDescription() const = 0;
};

/// A shared, immutable error, as it travels between threads.
using ErrorRef = std::shared_ptr<const Error>;

/// Wraps a concrete error for travel.
template <class E>
ErrorRef makeError(E error) {
    return std::make_shared<const E>(std::move(error));
}

}  // namespace bw
