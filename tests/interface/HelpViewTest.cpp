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

// The help picture shows the first page's quotes and dashes; these two stand further down.
TEST(HelpViewTest, TextsBelowTheFirstPageKeepTheirTypographicMarks) {
    HelpView view;
    const QStringList all = texts(view);
    EXPECT_TRUE(all.contains("Nothing is recorded / permission problems"));
    EXPECT_TRUE(
        all.join('\n').contains("PipeWire, your desktop’s audio service. If a recording can’t"));
}

}  // namespace
}  // namespace bw
