#pragma once

#include "app/FileViewer.h"

namespace bw {

/// The file manager of a freedesktop desktop: folders open through the desktop's URL handler;
/// a file is shown with org.freedesktop.FileManager1.ShowItems on the session bus, and where no
/// file manager answers that call, its folder opens instead.
///
/// Thread: the main thread, with a QGuiApplication.
class SystemFileViewer final : public FileViewer {
public:
    bool openFolder(const QUrl& folder) override;
    void selectFile(const QUrl& file) override;
};

}  // namespace bw
