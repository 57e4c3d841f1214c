#include "interface/UpdateDialog.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>
#include <QTextDocument>
#include <QVBoxLayout>

#include "interface/SymbolView.h"
#include "interface/Theme.h"

namespace bw {

UpdateDialog::UpdateDialog(const UpdateCheckResult& result, QWidget* parent)
    : QDialog(parent), result_(result), openUrl_(&QDesktopServices::openUrl) {
    setWindowTitle(tr("Software Update"));
    using Outcome = UpdateCheckResult::Outcome;
    const bool newer = result_.outcome == Outcome::updateAvailable && result_.update.has_value();

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(20, 20, 20, 16);
    row->setSpacing(16);
    SymbolView* symbol = nullptr;
    switch (result_.outcome) {
        case Outcome::upToDate:
            symbol = new SymbolView("checkmark.circle.fill", Theme::green(), 56, this);
            headline_ = new QLabel(tr("You're up to date!"), this);
            break;
        case Outcome::updateAvailable:
            symbol = new SymbolView("waveform.circle.fill", Theme::accent(), 56, this);
            headline_ = new QLabel(tr("A new version of Brightwave Record is available!"), this);
            break;
        case Outcome::failed:
            symbol = new SymbolView("exclamationmark.triangle.fill", Theme::orange(), 56, this);
            headline_ = new QLabel(tr("The update check didn't succeed."), this);
            break;
    }
    row->addWidget(symbol, 0, Qt::AlignTop);

    auto* column = new QVBoxLayout;
    column->setSpacing(10);
    headline_->setFont(Theme::title3Font(QFont::DemiBold));
    headline_->setWordWrap(true);
    column->addWidget(headline_);
    message_ = new QLabel(result_.message, this);
    message_->setFont(Theme::bodyFont());
    message_->setTextFormat(Qt::PlainText);
    message_->setWordWrap(true);
    message_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(message_);

    if (newer && !result_.update->notes.trimmed().isEmpty()) {
        notes_ = new QTextBrowser(this);
        // Links in the notes go through the same door as the download button.
        notes_->setOpenLinks(false);
        connect(notes_, &QTextBrowser::anchorClicked, this,
                [this](const QUrl& url) { openUrl_(url); });
        if (Qt::mightBeRichText(result_.update->notes)) {
            notes_->setHtml(result_.update->notes);
        } else {
            notes_->setPlainText(result_.update->notes);
        }
        notes_->setMinimumHeight(160);
        column->addWidget(notes_, 1);
    }

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    const bool hasPage =
        newer && result_.update->pageURL.isValid() && !result_.update->pageURL.isEmpty();
    close_ = new QPushButton(hasPage ? tr("Later") : tr("OK"), this);
    connect(close_, &QPushButton::clicked, this, &QDialog::accept);
    buttons->addWidget(close_);
    if (hasPage) {
        download_ = new QPushButton(tr("Visit Download Page"), this);
        download_->setDefault(true);
        connect(download_, &QPushButton::clicked, this, [this] {
            openUrl_(result_.update->pageURL);
            accept();
        });
        buttons->addWidget(download_);
    } else {
        close_->setDefault(true);
    }
    column->addLayout(buttons);
    row->addLayout(column, 1);
    // Wide enough that the headline wraps at most once; tall enough for every line.
    row->setSizeConstraint(QLayout::SetMinimumSize);
    resize(480, heightForWidth(480) > 0 ? heightForWidth(480) : sizeHint().height());
}

}  // namespace bw
