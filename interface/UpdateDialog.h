#pragma once

#include <QDialog>
#include <QUrl>
#include <functional>

#include "app/UpdateCheckResult.h"

class QLabel;
class QPushButton;
class QTextBrowser;

namespace bw {

/// What an update check found, told in a small dialog of its own: that this version is the
/// newest; that a newer one exists, with its release notes and a button to the page where it is
/// downloaded; or why the check failed. Nothing is downloaded or installed here. The dialog is
/// built once from its result and doesn't change. GUI thread only.
class UpdateDialog : public QDialog {
    Q_OBJECT
public:
    /// Opens a web page; returns whether the desktop took it.
    using OpenUrl = std::function<bool(const QUrl&)>;

    explicit UpdateDialog(const UpdateCheckResult& result, QWidget* parent = nullptr);

    /// What the download button does; by default `QDesktopServices::openUrl`.
    void setOpenUrl(OpenUrl open) { openUrl_ = std::move(open); }

    const UpdateCheckResult& checkResult() const { return result_; }
    QLabel* headline() const { return headline_; }
    QLabel* message() const { return message_; }
    /// The release notes; only for a newer version that has some.
    QTextBrowser* notes() const { return notes_; }
    /// Opens the newer version's page and closes the dialog; only for a newer version with a
    /// page.
    QPushButton* downloadButton() const { return download_; }
    /// Closes the dialog.
    QPushButton* closeButton() const { return close_; }

private:
    UpdateCheckResult result_;
    OpenUrl openUrl_;
    QLabel* headline_ = nullptr;
    QLabel* message_ = nullptr;
    QTextBrowser* notes_ = nullptr;
    QPushButton* download_ = nullptr;
    QPushButton* close_ = nullptr;
};

}  // namespace bw
