#pragma once

#include <QWidget>

class QTabWidget;

namespace bw {

class AboutSettingsView;
class AppState;
class GeneralSettingsView;
class UpdaterService;

/// The settings window's content: the tabs "General" and "About", 460 wide and as tall as their
/// content needs (the taller page decides), held at that size: the window follows it rather than
/// stretching it. Plain desktop controls, not the console's look. `state` and `updater` must
/// outlive the view. GUI thread only.
class SettingsView : public QWidget {
    Q_OBJECT
public:
    static constexpr int fixedWidth = 460;

    SettingsView(AppState& state, UpdaterService& updater, QWidget* parent = nullptr);

    QTabWidget* tabs() const { return tabs_; }
    /// Brings the About tab to the front (the Help menu's "About Brightwave Record").
    void showAbout();
    GeneralSettingsView* general() const { return general_; }
    AboutSettingsView* about() const { return about_; }

private:
    QTabWidget* tabs_;
    GeneralSettingsView* general_;
    AboutSettingsView* about_;
};

}  // namespace bw
