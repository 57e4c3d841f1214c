#pragma once

#include <QUrl>

namespace bw {

/// The desktop's file manager as the application uses it: open a folder, show one file.
///
/// Thread: the main thread; calls return at once (the file manager starts by itself).
class FileViewer {
public:
    virtual ~FileViewer() = default;

    /// Opens the folder in the file manager; false when the desktop refused.
    virtual bool openFolder(const QUrl& folder) = 0;

    /// Shows the file selected in its folder.
    virtual void selectFile(const QUrl& file) = 0;
};

}  // namespace bw
