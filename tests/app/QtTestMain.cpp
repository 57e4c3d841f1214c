// The one main of the Qt test programs (tests/app, tests/interface, tests/shell): widgets drawn
// offscreen, one application object for the whole run, no proxy between a test and its local
// server. Built with BW_TEST_SESSION_BUS (the shell's programs), it also puts the program on a
// session bus of its own, where the tray item and its stand-in host meet.
#include <gtest/gtest.h>

#include <QApplication>
#include <QNetworkProxy>

#if defined(BW_TEST_SESSION_BUS)
#include "tests/shell/BusUnderThreadSanitizer.h"
#include "tests/support/PrivateSessionBus.h"
#endif

int main(int argc, char** argv) {
#if defined(BW_TEST_SESSION_BUS)
    bw::test::PrivateSessionBus bus;
#endif
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
