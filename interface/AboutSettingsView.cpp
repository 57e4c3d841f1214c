#include "interface/AboutSettingsView.h"

#include <QLabel>
#include <QUrl>
#include <QVBoxLayout>

#include "interface/SymbolView.h"
#include "interface/Theme.h"

namespace bw {

namespace {

QLabel* centred(const QString& text, const QFont& font, bool secondary, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setFont(font);
    label->setAlignment(Qt::AlignHCenter);
    if (secondary) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, Theme::secondary(palette));
        label->setPalette(palette);
    }
    return label;
}

QLabel* link(const QUrl& target, const QString& title, QWidget* parent) {
    auto* label = centred(QStringLiteral("<a href=\"%1\">%2</a>")
                              .arg(target.toString(QUrl::FullyEncoded), title.toHtmlEscaped()),
                          Theme::calloutFont(), false, parent);
    label->setTextFormat(Qt::RichText);
    label->setOpenExternalLinks(true);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    return label;
}

}  // namespace

AboutSettingsView::AboutSettingsView(QWidget* parent) : QWidget(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(32, 32, 32, 32);
    column->setSpacing(12);
    column->addWidget(new SymbolView("waveform.circle.fill", Theme::accent(), 56, this), 0,
                      Qt::AlignHCenter);
    column->addWidget(centred(QStringLiteral("Brightwave Record"),
                              Theme::title2Font(QFont::DemiBold), false, this));
    version_ = centred(tr("Version %1").arg(versionText(buildShortVersion(), buildVersion())),
                       Theme::bodyFont(), true, this);
    column->addWidget(version_);
    column->addWidget(
        centred(tr("Record any audio on your computer."), Theme::calloutFont(), true, this));
    const QUrl page(QString::fromLatin1(webPage));
    webLink_ = link(page, page.host() + page.path(), this);
    column->addWidget(webLink_);
    const QString mail = QString::fromLatin1(supportMail);
    mailLink_ = link(QUrl(QStringLiteral("mailto:") + mail), mail, this);
    column->addWidget(mailLink_);
}

QString AboutSettingsView::versionText(const QVariant& shortVersion, const QVariant& buildVersion) {
    const auto textOr = [](const QVariant& value, const char* fallback) {
        return value.typeId() == QMetaType::QString ? value.toString()
                                                    : QString::fromLatin1(fallback);
    };
    return textOr(shortVersion, "1.0") + QStringLiteral(" (") + textOr(buildVersion, "1") +
           QLatin1Char(')');
}

QVariant AboutSettingsView::buildShortVersion() {
#ifdef BW_APP_VERSION
    return QString::fromLatin1(BW_APP_VERSION);
#else
    return {};
#endif
}

QVariant AboutSettingsView::buildVersion() {
#ifdef BW_BUILD_NUMBER
    return QString::fromLatin1(BW_BUILD_NUMBER);
#else
    return {};
#endif
}

}  // namespace bw
