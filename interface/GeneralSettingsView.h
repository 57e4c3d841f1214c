#pragma once

#include <QFileDialog>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <vector>

class QCheckBox;
class QLabel;
class QPushButton;
class QRadioButton;

namespace bw {

class AppState;
class CheckForUpdatesView;
class UpdaterService;

/// The general settings: the recording format, whether each source is also saved on its own, the
/// recordings folder and the update check, as plain desktop controls in a form. It keeps no
/// state: it shows `AppState`'s preferences as they change and writes the user's choices back
/// through it.
///
/// While a recording starts, runs or stops, the format, the source files and the folder are
/// locked and a note says why; the update check stays available. A stored format that is none of
/// the three shows as the first choice (m4a) and stays stored until the user picks one. "Choose…"
/// opens a folder dialog that is a window of its own (the settings stay usable); only a confirmed
/// choice of a folder changes the preference, even if a recording has begun meanwhile (it takes
/// effect for the next one). `state` and `updater` must outlive the view. GUI thread only.
class GeneralSettingsView : public QWidget {
    Q_OBJECT
public:
    /// Makes the folder dialog, opened at `directory`, owned by `parent`; the view shows it and
    /// reads `selectedFiles()` when it finishes.
    using FolderDialogFactory =
        std::function<QFileDialog*(QWidget* parent, const QString& directory)>;

    GeneralSettingsView(AppState& state, UpdaterService& updater, QWidget* parent = nullptr);

    /// The desktop's folder dialog: directories only, new folders allowed, one choice, not modal,
    /// deleted when closed.
    static QFileDialog* makeFolderDialog(QWidget* parent, const QString& directory);
    void setFolderDialogFactory(FolderDialogFactory factory) { makeDialog_ = std::move(factory); }

    /// The radio buttons in the order of the formats (m4a, wav, aiff).
    const std::vector<QRadioButton*>& formatButtons() const { return formatButtons_; }
    /// "Also save each source as its own file".
    QCheckBox* sourceFilesBox() const { return sourceFiles_; }
    /// The folder line; its tooltip is the folder's full path.
    QLabel* folderLine() const { return folderLine_; }
    /// The folder as the user reads it, before it is cut to the line's width.
    const QString& folderDisplayPath() const { return folderDisplayPath_; }
    QPushButton* chooseButton() const { return choose_; }
    QLabel* busyNote() const { return busyNote_; }
    CheckForUpdatesView* updateButton() const { return updateButton_; }
    /// The folder dialog while it is open.
    QFileDialog* folderDialog() const { return dialog_; }

    /// Opens the folder dialog, or brings the open one forward.
    void chooseFolder();

private:
    void updateFormat();
    void updateSourceFiles();
    void updateFolder();
    void updateBusy();

    AppState& state_;
    FolderDialogFactory makeDialog_;
    QPointer<QFileDialog> dialog_;
    QString folderDisplayPath_;

    QWidget* formats_ = nullptr;
    std::vector<QRadioButton*> formatButtons_;
    QCheckBox* sourceFiles_ = nullptr;
    QLabel* folderLine_ = nullptr;
    QPushButton* choose_ = nullptr;
    QLabel* busyNote_ = nullptr;
    CheckForUpdatesView* updateButton_ = nullptr;
};

}  // namespace bw
