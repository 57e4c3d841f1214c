#pragma once

namespace bw {

/// The program's texts in the user's language. Qt's `tr` and the engine's and capture's
/// `localized` go through the same lookup (`QCoreApplication::translate`, the class as context),
/// so one catalogue (`make translations`) serves the windows and the messages alike.
class Translations {
public:
    Translations() = delete;

    /// Loads the catalogues of the user's locale that are installed (Qt's own, and ours from
    /// share/brightwave-record/translations beside the program's prefix) and routes `localized`
    /// to Qt's lookup. Main thread, once at start-up, after the QApplication exists and before
    /// any other thread asks for a text.
    static void install();
};

}  // namespace bw
