#include <gtest/gtest.h>

#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>

#include "interface/UpdateDialog.h"

namespace bw {
namespace {

using Outcome = UpdateCheckResult::Outcome;

AppcastItem release(QUrl page, QString notes) {
    return {"1.4.0", "1.4", "Brightwave Record 1.4", std::move(page), std::move(notes)};
}

TEST(UpdateDialogTest, EachOutcomeIsToldInItsOwnWords) {
    struct Case {
        const char* what;
        UpdateCheckResult result;
        QString headline;
        bool notes;
        bool download;
        QString close;
    };
    // A newer version with notes and a page is the update dialog's picture.
    const std::vector<Case> cases = {
        {"up to date",
         {Outcome::upToDate, std::nullopt, "Brightwave Record 1.3 is the newest version."},
         "You're up to date!",
         false,
         false,
         "OK"},
        {"newer, without notes or page",
         {Outcome::updateAvailable, release(QUrl(), ""),
          "Brightwave Record 1.4 is available; you have 1.3."},
         "A new version of Brightwave Record is available!",
         false,
         false,
         "OK"},
        {"failed",
         {Outcome::failed, std::nullopt, "The update check failed. Connection refused"},
         "The update check didn't succeed.",
         false,
         false,
         "OK"},
    };
    for (const auto& c : cases) {
        UpdateDialog dialog(c.result);
        EXPECT_EQ(dialog.headline()->text(), c.headline) << c.what;
        EXPECT_EQ(dialog.message()->text(), c.result.message) << c.what;
        EXPECT_EQ(dialog.notes() != nullptr, c.notes) << c.what;
        EXPECT_EQ(dialog.downloadButton() != nullptr, c.download) << c.what;
        EXPECT_EQ(dialog.closeButton()->text(), c.close) << c.what;
    }
}

TEST(UpdateDialogTest, DownloadOpensTheReleasePageAndCloses) {
    const QUrl page("https://brightwave.tallowfields.com/releases/1.4");
    UpdateDialog dialog({Outcome::updateAvailable, release(page, "Plain notes\nover two lines"),
                         "Brightwave Record 1.4 is available; you have 1.3."});
    std::vector<QUrl> opened;
    dialog.setOpenUrl([&](const QUrl& url) {
        opened.push_back(url);
        return true;
    });
    dialog.show();
    EXPECT_EQ(dialog.notes()->toPlainText(), "Plain notes\nover two lines");
    EXPECT_TRUE(dialog.downloadButton()->isDefault());
    dialog.downloadButton()->click();
    EXPECT_EQ(opened, std::vector<QUrl>{page});
    EXPECT_FALSE(dialog.isVisible());
    EXPECT_EQ(dialog.result(), QDialog::Accepted);
}

}  // namespace
}  // namespace bw
