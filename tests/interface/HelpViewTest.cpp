#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>

#include "interface/HelpView.h"

namespace bw {
namespace {

QStringList texts(const QWidget& view) {
    QStringList all;
    for (const QLabel* label : view.findChildren<QLabel*>()) {
        all << label->text();
    }
    return all;
}

TEST(HelpViewTest, TheFrameStaysFixedAndTheTextScrollsInsideIt) {
    HelpView view;
    view.show();
    EXPECT_EQ(view.minimumSize(), QSize(480, 520));
    EXPECT_EQ(view.maximumSize(), QSize(480, 520));
    QWidget* content = view.scrollArea()->widget();
    const int before = content->sizeHint().height();

    // A translation twice as long makes the page longer, not the window.
    for (QLabel* label : content->findChildren<QLabel*>()) {
        label->setText(label->text() + ' ' + label->text());
    }
    QApplication::processEvents();
    EXPECT_GT(content->sizeHint().height(), before);
    EXPECT_EQ(view.size(), QSize(480, 520));
    EXPECT_GT(content->height(), view.scrollArea()->viewport()->height());
    EXPECT_GT(view.scrollArea()->verticalScrollBar()->maximum(), 0);
    EXPECT_EQ(content->width(), view.scrollArea()->viewport()->width());  // nothing sideways
}

TEST(HelpViewTest, TextsKeepTheirTypographicQuotesAndDashes) {
    HelpView view;
    const QStringList all = texts(view);
    for (const QString& expected :
         {QString("How to record"), QString("Press Stop"),
          QString("What does “Hear the final mix” do?"),
          QString("What does “Also save each source as its own file” do?"),
          QString("Nothing is recorded / permission problems")}) {
        EXPECT_TRUE(all.contains(expected)) << expected.toStdString();
    }
    const QString joined = all.join('\n');
    EXPECT_TRUE(joined.contains("in the system tray — click it any time to stop."));
    EXPECT_TRUE(joined.contains("PipeWire, your desktop’s audio service. If a recording can’t"));
}

}  // namespace
}  // namespace bw
