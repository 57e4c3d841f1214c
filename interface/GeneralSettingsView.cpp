#include "interface/GeneralSettingsView.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QResizeEvent>
#include <QVBoxLayout>

#include "app/AppState.h"
#include "app/OutputNaming.h"
#include "engine/RecordingFormat.h"
#include "interface/CheckForUpdatesView.h"
#include "interface/Theme.h"

namespace bw {

namespace {

// One line of text cut in the middle to the width it gets, so a long path keeps its beginning
// and its end. It asks for no width of its own: the form decides.
class MiddleElidedLabel : public QLabel {
public:
    explicit MiddleElidedLabel(QWidget* parent) : QLabel(parent) {
        setTextFormat(Qt::PlainText);
        setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
        setMinimumWidth(40);
    }

    void setFullText(const QString& text) {
        full_ = text;
        elide();
    }

protected:
    void resizeEvent(QResizeEvent* event) override {
        QLabel::resizeEvent(event);
        elide();
    }

private:
    void elide() { setText(fontMetrics().elidedText(full_, Qt::ElideMiddle, width())); }

    QString full_;
};

void setSecondary(QWidget* widget) {
    QPalette palette = widget->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::WindowText, Theme::secondary(widget->palette()));
    }
    widget->setPalette(palette);
}

}  // namespace

GeneralSettingsView::GeneralSettingsView(AppState& state, UpdaterService& updater, QWidget* parent)
    : QWidget(parent), state_(state), makeDialog_(&GeneralSettingsView::makeFolderDialog) {
    auto* form = new QFormLayout(this);
    form->setLabelAlignment(Qt::AlignRight);
    form->setFormAlignment(Qt::AlignLeft | Qt::AlignTop);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);

    formats_ = new QWidget(this);
    auto* formatColumn = new QVBoxLayout(formats_);
    formatColumn->setContentsMargins(0, 0, 0, 0);
    for (const RecordingFormat format : RecordingFormat::allCases()) {
        auto* button = new QRadioButton(QString::fromStdString(format.displayName()), formats_);
        // Only the user's click writes: showing an odd stored value as m4a must not store m4a.
        connect(button, &QRadioButton::clicked, this, [this, format] {
            state_.setRecordingFormatRaw(QString::fromStdString(format.rawValue()));
        });
        formatColumn->addWidget(button);
        formatButtons_.push_back(button);
    }
    form->addRow(tr("Recording format:"), formats_);

    sourceFiles_ = new QCheckBox(tr("Also save each source as its own file"), this);
    connect(sourceFiles_, &QCheckBox::clicked, this,
            [this](bool checked) { state_.setSaveSourceFiles(checked); });
    form->addRow(QString(), sourceFiles_);

    auto* folder = new QWidget(this);
    auto* folderColumn = new QVBoxLayout(folder);
    folderColumn->setContentsMargins(0, 0, 0, 0);
    folderColumn->setSpacing(6);
    auto* line = new MiddleElidedLabel(folder);
    line->setFont(Theme::calloutFont());
    setSecondary(line);
    folderLine_ = line;
    folderColumn->addWidget(folderLine_);
    choose_ = new QPushButton(tr("Choose…"), folder);
    connect(choose_, &QPushButton::clicked, this, &GeneralSettingsView::chooseFolder);
    folderColumn->addWidget(choose_, 0, Qt::AlignLeft);
    busyNote_ = new QLabel(
        tr("The format and folder can't change while a recording is in progress."), folder);
    busyNote_->setFont(Theme::captionFont());
    busyNote_->setWordWrap(true);
    setSecondary(busyNote_);
    folderColumn->addWidget(busyNote_);
    form->addRow(tr("Recordings folder:"), folder);

    updateButton_ = new CheckForUpdatesView(updater, this);
    form->addRow(tr("Updates:"), updateButton_);
    form->setAlignment(updateButton_, Qt::AlignLeft);

    connect(&state_, &AppState::recordingFormatRawChanged, this,
            &GeneralSettingsView::updateFormat);
    connect(&state_, &AppState::saveSourceFilesChanged, this,
            &GeneralSettingsView::updateSourceFiles);
    connect(&state_, &AppState::recordingsFolderPathChanged, this,
            &GeneralSettingsView::updateFolder);
    connect(&state_, &AppState::isBusyChanged, this, &GeneralSettingsView::updateBusy);
    updateFormat();
    updateSourceFiles();
    updateFolder();
    updateBusy();
}

void GeneralSettingsView::updateFormat() {
    const auto format = RecordingFormat::fromRawValue(state_.recordingFormatRaw().toStdString())
                            .value_or(RecordingFormat::m4a);
    const auto all = RecordingFormat::allCases();
    for (std::size_t i = 0; i < all.size(); ++i) {
        formatButtons_[i]->setChecked(all[i] == format);
    }
}

void GeneralSettingsView::updateSourceFiles() {
    sourceFiles_->setChecked(state_.saveSourceFiles());
}

void GeneralSettingsView::updateFolder() {
    const QUrl folder = state_.recordingsFolderURL();
    folderDisplayPath_ = OutputNaming::displayPath(folder);
    static_cast<MiddleElidedLabel*>(folderLine_)->setFullText(folderDisplayPath_);
    folderLine_->setToolTip(folder.toLocalFile());
}

void GeneralSettingsView::updateBusy() {
    const bool busy = state_.isBusy();
    formats_->setEnabled(!busy);
    sourceFiles_->setEnabled(!busy);
    choose_->setEnabled(!busy);
    busyNote_->setVisible(busy);
}

QFileDialog* GeneralSettingsView::makeFolderDialog(QWidget* parent, const QString& directory) {
    // A folder not made yet opens at its nearest existing parent, with no name typed in.
    QString start = directory;
    while (!start.isEmpty() && !QFileInfo(start).isDir()) {
        const QString up = QFileInfo(start).absolutePath();
        start = up == start ? QString() : up;
    }
    auto* dialog = new QFileDialog(parent, tr("Choose a Recordings Folder"));
    dialog->setDirectory(start);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setAcceptMode(QFileDialog::AcceptOpen);
    dialog->setWindowModality(Qt::NonModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    return dialog;
}

void GeneralSettingsView::chooseFolder() {
    if (dialog_) {
        dialog_->raise();
        dialog_->activateWindow();
        return;
    }
    QFileDialog* dialog = makeDialog_(this, state_.recordingsFolderURL().toLocalFile());
    dialog_ = dialog;
    connect(dialog, &QFileDialog::finished, this, [this, dialog](int result) {
        if (result != QDialog::Accepted) {
            return;
        }
        const QStringList chosen = dialog->selectedFiles();
        if (chosen.isEmpty() || chosen.first().isEmpty()) {
            return;
        }
        state_.setRecordingsFolderPath(chosen.first());
    });
    dialog->show();
}

}  // namespace bw
