#include <QApplication>

#include "app/Translations.h"
#include "shell/ApplicationIcon.h"
#include "shell/BrightwaveRecordApp.h"
#include "shell/TerminationSignals.h"

int main(int argc, char* argv[]) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("BrightwaveRecord"));
    QApplication::setApplicationDisplayName(QStringLiteral("Brightwave Record"));
    QApplication::setDesktopFileName(QString::fromLatin1(bw::ApplicationIcon::kName));
    QApplication::setWindowIcon(bw::ApplicationIcon::icon());
    bw::Translations::install();
    // The application object decides what closing the last window means.
    QApplication::setQuitOnLastWindowClosed(false);

    bw::BrightwaveRecordApp app(bw::BrightwaveRecordApp::system());
    bw::TerminationSignals stopSignals;
    QObject::connect(&stopSignals, &bw::TerminationSignals::received, &app,
                     &bw::BrightwaveRecordApp::requestTermination);
    app.openWindow(QStringLiteral("main"));
    return QApplication::exec();
}
