#include "interface/HelpView.h"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QScrollArea>
#include <QVBoxLayout>

#include "interface/Theme.h"

namespace bw {

namespace {

// The number of a step on a faint accent disc; decoration beside the step's own title.
class NumberBadge : public QWidget {
public:
    static constexpr int side = 26;

    NumberBadge(int number, QWidget* parent) : QWidget(parent), number_(number) {
        setFixedSize(side, side);
        setFont(Theme::headlineFont());
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::withOpacity(Theme::accent(), 0.2));
        painter.drawEllipse(QRectF(rect()));
        painter.setPen(Theme::primary(palette()));
        painter.drawText(rect(), Qt::AlignCenter, QString::number(number_));
    }

private:
    int number_;
};

// A headline over a secondary text that wraps and never truncates.
QVBoxLayout* titledText(const QString& title, const QString& body, QWidget* parent) {
    auto* column = new QVBoxLayout;
    column->setSpacing(4);
    auto* heading = new QLabel(title, parent);
    heading->setFont(Theme::headlineFont());
    heading->setWordWrap(true);
    heading->setTextFormat(Qt::PlainText);
    column->addWidget(heading);
    auto* text = new QLabel(body, parent);
    text->setFont(Theme::bodyFont());
    text->setWordWrap(true);
    text->setTextFormat(Qt::PlainText);
    QPalette palette = text->palette();
    palette.setColor(QPalette::WindowText, Theme::secondary(palette));
    text->setPalette(palette);
    column->addWidget(text);
    return column;
}

}  // namespace

HelpView::HelpView(QWidget* parent) : QWidget(parent) {
    setFixedSize(fixedWidth, fixedHeight);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    scroll_ = new QScrollArea(this);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setWidgetResizable(true);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    outer->addWidget(scroll_);

    auto* content = new QWidget(scroll_);
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(24, 24, 24, 24);
    column->setSpacing(20);

    auto* heading = new QLabel(tr("How to record"), content);
    heading->setFont(Theme::title3Font(QFont::DemiBold));
    column->addWidget(heading);

    struct Step {
        QString title;
        QString text;
    };
    const Step steps[] = {
        {tr("Tick what you want to record"),
         tr("In the list, choose System Audio to record everything you hear, or choose one or "
            "more individual apps. Add any microphones you want, and Brightwave Record mixes the "
            "selected sources into one file.")},
        {tr("Press Record"),
         tr("The round red button at the top left starts the recording. While recording, a timer "
            "also appears in the system tray — click it any time to stop.")},
        {tr("Press Stop"),
         tr("The same button stops the recording. Your file is saved automatically — a green "
            "message shows where, and the Recordings Folder button at the bottom opens that "
            "folder.")},
    };
    int number = 1;
    for (const Step& step : steps) {
        auto* row = new QHBoxLayout;
        row->setSpacing(12);
        row->addWidget(new NumberBadge(number++, content), 0, Qt::AlignTop);
        row->addLayout(titledText(step.title, step.text, content), 1);
        column->addLayout(row);
    }

    auto* divider = new QFrame(content);
    divider->setFrameShape(QFrame::HLine);
    divider->setFrameShadow(QFrame::Sunken);
    column->addWidget(divider);

    column->addLayout(titledText(
        tr("What does “Hear the final mix” do?"),
        tr("When it is on, the apps you record are silenced and Brightwave Record plays the "
           "recorded mix instead, so you hear exactly what is going into the file: every source "
           "at its set volume, plus any microphones. When it is off, apps keep playing normally "
           "through your speakers, so recording a single app sounds the same either way."),
        content));
    column->addLayout(titledText(
        tr("What does “Also save each source as its own file” do?"),
        tr("Beside the mix, every source of the recording gets a file of its own, named after "
           "the recording and the source, at its fader’s level — for editing a call or a "
           "podcast afterwards. The files start and end together with the mix, so they line up "
           "in any editor; a source that stayed silent gets a silent file. Turn it on in "
           "Settings → General."),
        content));
    column->addLayout(titledText(
        tr("Nothing is recorded / permission problems"),
        tr("Brightwave Record records through PipeWire, your desktop’s audio service. If a "
           "recording can’t start, check that PipeWire is running; in a sandbox (Flatpak), allow "
           "the app audio access, and microphone access if you record your voice."),
        content));
    column->addStretch(1);
    scroll_->setWidget(content);
}

}  // namespace bw
