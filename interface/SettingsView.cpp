#include "interface/SettingsView.h"

#include <QTabWidget>
#include <QVBoxLayout>

#include "interface/AboutSettingsView.h"
#include "interface/GeneralSettingsView.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {

SettingsView::SettingsView(AppState& state, UpdaterService& updater, QWidget* parent)
    : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    // The window takes the natural size of the tabs and keeps it.
    layout->setSizeConstraint(QLayout::SetFixedSize);
    tabs_ = new QTabWidget(this);
    tabs_->setFixedWidth(fixedWidth);
    tabs_->setDocumentMode(false);
    general_ = new GeneralSettingsView(state, updater, tabs_);
    about_ = new AboutSettingsView(tabs_);
    const QColor symbols = Theme::primary(palette());
    tabs_->addTab(general_, SymbolImages::icon("gear", symbols), tr("General"));
    tabs_->addTab(about_, SymbolImages::icon("info.circle", symbols), tr("About"));
    layout->addWidget(tabs_);
}

void SettingsView::showAbout() {
    tabs_->setCurrentWidget(about_);
}

}  // namespace bw
