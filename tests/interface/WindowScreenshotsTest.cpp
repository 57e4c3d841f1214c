// Paints the windows around the console at scale 2 (the walkthrough's steps, help, both settings
// tabs, the update dialog) and compares them with the reviewed pictures; no paint may nest in
// another.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

#include "app/OnboardingController.h"
#include "app/UpdaterService.h"
#include "capture/CoreAudioError.h"
#include "capture/SystemAudioPermission.h"
#include "interface/ConsoleSurface.h"
#include "interface/GrainOverlay.h"
#include "interface/HelpView.h"
#include "interface/ManualConsoleClock.h"
#include "interface/OnboardingView.h"
#include "interface/SettingsView.h"
#include "interface/UpdateDialog.h"
#include "tests/app/FakeClock.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using namespace std::chrono_literals;

constexpr double kScale = 2.0;
// Set before the shared main makes the application object.
[[maybe_unused]] const bool kScaled = qputenv("QT_SCALE_FACTOR", "2");

// Grabs `window` once the grain of any panel in it has arrived; saves it when asked to.
QImage shoot(QWidget& window, const char* name) {
    window.show();
    window.grab();
    for (auto* surface : window.findChildren<ConsoleSurface*>()) {
        EXPECT_TRUE(QTest::qWaitFor([&] { return surface->grain().texture().has_value(); }, 5000));
    }
    const QImage picture = window.grab().toImage();
    EXPECT_TRUE(test::matchesScreenshot(picture, QString::fromLatin1(name)));
    return picture;
}

// Counts Qt's complaints of a painter begun on a device another painter holds: a paint nested in
// a paint, which draws nothing where it should.
struct NestedPaintWatch {
    static inline int count = 0;
    static inline QtMessageHandler previous = nullptr;
    NestedPaintWatch() {
        count = 0;
        previous = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& message) {
                if (message.contains(QLatin1String("QPainter::begin"))) {
                    ++count;
                }
                previous(type, context, message);
            });
    }
    ~NestedPaintWatch() { qInstallMessageHandler(previous); }
};

class RefusingProbe : public SystemAudioTapProbe {
public:
    Expected<void, ErrorRef> makeTap() override {
        return Unexpected(makeError(CoreAudioError(-1, "create permission-check tap")));
    }
};

TEST(WindowScreenshotsTest, WalkthroughStepsStandOnTheConsolePanel) {
    NestedPaintWatch nested;
    QTemporaryDir dir;
    QSettings defaults(dir.filePath("defaults.ini"), QSettings::IniFormat);
    ManualConsoleClock clock;
    test::FakeClock appClock;
    OnboardingController controller(std::make_shared<RefusingProbe>(), &defaults, appClock);
    OnboardingView view(controller, &clock);
    const char* names[] = {"onboarding-welcome.png", "onboarding-how-it-works.png",
                           "onboarding-permission.png", "onboarding-ready.png"};
    for (int step = 0; step < OnboardingView::stepCount; ++step) {
        view.setStep(step);
        clock.advance(1200ms);
        EXPECT_EQ(shoot(view, names[step]).size(), QSize(520, 560) * kScale);
    }

    // The permission step after a refusal, with the way to the settings.
    view.setStep(OnboardingView::permissionStep);
    defaults.setValue(SystemAudioPermission::kAttemptedKey, true);
    view.hide();
    view.show();
    ASSERT_TRUE(test::pumpUntil(
        [&] { return controller.permissionStatus() == SystemAudioPermission::Status::denied; }));
    clock.advance(1200ms);
    shoot(view, "onboarding-permission-denied.png");
    EXPECT_TRUE(view.openSettingsButton()->isVisible());
    EXPECT_EQ(nested.count, 0);
}

TEST(WindowScreenshotsTest, HelpSettingsAndUpdateDialog) {
    NestedPaintWatch nested;
    HelpView help;
    shoot(help, "help.png");

    test::ViewRig rig;
    UpdaterService updater(QUrl("https://brightwave.tallowfields.com/appcast.xml"), "0.1.0");
    SettingsView settings(*rig.state, updater);
    rig.state->setRecordingsFolderPath(QDir::homePath() + "/Music/BrightwaveRecord/Interviews");
    rig.state->setSaveSourceFiles(true);
    shoot(settings, "settings-general.png");
    EXPECT_EQ(settings.width(), SettingsView::fixedWidth);
    settings.tabs()->setCurrentIndex(1);
    QApplication::processEvents();
    shoot(settings, "settings-about.png");

    const AppcastItem release{"0.2.0", "0.2", "Brightwave Record 0.2",
                              QUrl("https://brightwave.tallowfields.com/releases/0.2"),
                              "<p>What's new:</p><ul><li>Meters hold their peak a little "
                              "longer.</li><li>The folder chooser opens where your recordings "
                              "are.</li></ul>"};
    UpdateDialog dialog({UpdateCheckResult::Outcome::updateAvailable, release,
                         "Brightwave Record 0.2 is available; you have 0.1.0."});
    shoot(dialog, "update-dialog.png");
    EXPECT_EQ(nested.count, 0);
}

}  // namespace
}  // namespace bw
