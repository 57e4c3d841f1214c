#include "interface/ContentView.h"

#include <QAbstractButton>
#include <QFrame>
#include <QHBoxLayout>
#include <QHideEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

#include "app/AppState.h"
#include "app/AudioLevelTracker.h"
#include "app/LevelSubject.h"
#include "app/RecordingTimer.h"
#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/ConsoleClock.h"
#include "interface/ConsoleSurface.h"
#include "interface/MasterLevelMeter.h"
#include "interface/RecordButton.h"
#include "interface/SourceRowView.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"
#include "interface/TimecodeLCDView.h"

namespace bw {
namespace {

constexpr int kSymbolSide = 16;

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette palette = widget->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::WindowText, color);
        palette.setColor(group, QPalette::ButtonText, color);
    }
    widget->setPalette(palette);
}

// A small drawn on/off switch with a symbol and a label; dim while disabled.
class MonitorSwitch : public QAbstractButton {
public:
    explicit MonitorSwitch(QWidget* parent) : QAbstractButton(parent) {
        setCheckable(true);
        setText(ContentView::tr("Hear the final mix"));
        setFocusPolicy(Qt::StrongFocus);
    }
    QSize sizeHint() const override {
        const QFontMetrics metrics(font());
        return QSize(kTrackWidth + 6 + kSymbolSide + 4 + metrics.horizontalAdvance(text()) + 2,
                     std::max(kTrackHeight, metrics.height()) + 2);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        if (!isEnabled()) {
            painter.setOpacity(0.45);
        }
        const QColor text = Theme::primary(palette());
        const double middle = height() / 2.0;
        const QRectF symbol(0, middle - kSymbolSide / 2.0, kSymbolSide, kSymbolSide);
        SymbolImages::draw(painter, "headphones", symbol, Theme::secondary(palette()));
        painter.setPen(text);
        const QRectF label(symbol.right() + 4, 0, width() - kTrackWidth - 6 - symbol.right() - 4,
                           height());
        painter.drawText(label, Qt::AlignVCenter | Qt::AlignLeft, this->text());
        const QRectF track(width() - kTrackWidth, middle - kTrackHeight / 2.0, kTrackWidth,
                           kTrackHeight);
        painter.setPen(Qt::NoPen);
        painter.setBrush(isChecked() ? Theme::consoleAmber() : Theme::withOpacity(text, 0.2));
        painter.drawRoundedRect(track, kTrackHeight / 2.0, kTrackHeight / 2.0);
        const double knob = kTrackHeight - 4;
        const double x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
        painter.setBrush(Qt::white);
        painter.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
    }

private:
    static constexpr int kTrackWidth = 28;
    static constexpr int kTrackHeight = 16;
};

// One message: symbol, text, optional reveal button, dismiss, over a wash of its colour.
class MessageLine : public QWidget {
public:
    MessageLine(QWidget* parent, const QColor& color, const QString& symbol, const QString& text)
        : QWidget(parent), color_(color) {
        auto* layout = new QHBoxLayout(this);
        layout->setContentsMargins(8, 8, 8, 8);
        auto* icon = new QLabel(this);
        icon->setPixmap(SymbolImages::pixmap(symbol, QSize(kSymbolSide, kSymbolSide), color,
                                             devicePixelRatioF()));
        icon->setAccessibleName(QString());
        layout->addWidget(icon, 0, Qt::AlignVCenter);
        label_ = new QLabel(text, this);
        label_->setObjectName("messageText");
        label_->setFont(Theme::messageFont());
        label_->setWordWrap(true);
        label_->setTextFormat(Qt::PlainText);
        layout->addWidget(label_, 1, Qt::AlignVCenter);
    }

    QHBoxLayout* row() const { return static_cast<QHBoxLayout*>(layout()); }

    QToolButton* addDismiss() {
        auto* dismiss = new QToolButton(this);
        dismiss->setObjectName("dismissButton");
        dismiss->setAutoRaise(true);
        dismiss->setAccessibleName(ContentView::tr("Dismiss"));
        dismiss->setIcon(SymbolImages::icon("xmark.circle.fill", Theme::secondary(palette())));
        dismiss->setIconSize(QSize(kSymbolSide, kSymbolSide));
        dismiss->setStyleSheet("QToolButton { border: none; background: transparent; }");
        row()->addWidget(dismiss, 0, Qt::AlignVCenter);
        return dismiss;
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::withOpacity(color_, 0.1));
        painter.drawRoundedRect(QRectF(rect()), 8, 8);
    }

private:
    QColor color_;
    QLabel* label_;
};

// The capsule behind the search field.
class SearchCapsule : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::withOpacity(Theme::primary(palette()), 0.06));
        painter.drawRoundedRect(QRectF(rect()), height() / 2.0, height() / 2.0);
    }
};

QLabel* sectionHeader(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setFont(Theme::sectionHeaderFont());
    setTextColor(label, Theme::secondary(label->palette()));
    return label;
}

QFrame* divider(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setFixedHeight(1);
    setTextColor(line, Theme::withOpacity(Theme::primary(line->palette()), 0.12));
    return line;
}

}  // namespace

ContentView::ContentView(AppState& state, AppIconCache& icons, AudioLevelTracker& levels,
                         RecordingTimer& timer, ConsoleClock* clock, QWidget* parent)
    : QWidget(parent),
      state_(state),
      icons_(icons),
      levels_(levels),
      timer_(timer),
      clock_(clock != nullptr ? clock : ConsoleClock::system()) {
    setMinimumSize(560, 480);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(buildHeader());
    column->addWidget(divider(this));
    column->addWidget(buildList(), 1);
    column->addWidget(divider(this));
    column->addWidget(buildFooter());

    for (auto signal : {&AppState::isRecordingChanged, &AppState::isStartingRecordingChanged,
                        &AppState::isStoppingRecordingChanged, &AppState::selectedSourceIDsChanged,
                        &AppState::showSelectionHintChanged}) {
        connect(&state_, signal, this, &ContentView::updateTransport);
    }
    connect(&state_, &AppState::passthroughEnabledChanged, this, &ContentView::updateTransport);
    connect(&state_, &AppState::showSelectionHintChanged, this, &ContentView::moveSelectionHint);
    connect(clock_, &ConsoleClock::frame, this, &ContentView::advanceSelectionHint);
    selectionHint_.jumpTo(state_.showSelectionHint() ? 1.0 : 0.0);
    for (auto signal : {&AppState::errorMessageChanged, &AppState::sourceWarningsChanged,
                        &AppState::savedMessageChanged, &AppState::isRecordingChanged}) {
        connect(&state_, signal, this, &ContentView::updateMessages);
    }
    connect(&state_, &AppState::lastRecordingURLChanged, this, &ContentView::updateFooter);
    connect(&state_, &AppState::appSourcesChanged, this, &ContentView::rebuildFilteredApps);
    connect(&state_, &AppState::micSourcesChanged, this,
            [this] { syncRows(state_.micSources(), micRows_, micRowsLayout_); });
    connect(&timer_, &RecordingTimer::elapsedChanged, this, [this] {
        timecode_->setFormattedElapsed(timer_.formattedElapsed());
        timecode_->setCompactElapsed(timer_.compactElapsed());
    });
    LevelSubject* master = levels_.publisher(RecordingSource::kMasterLevelKey);
    connect(master, &LevelSubject::sent, masterMeter_, &SegmentedMeter::setLevel);
    connect(master, &LevelSubject::sent, recordButton_, &RecordButton::setLevel);

    timecode_->setFormattedElapsed(timer_.formattedElapsed());
    timecode_->setCompactElapsed(timer_.compactElapsed());
    updateTransport();
    updateMessages();
    updateFooter();
    rebuildFilteredApps();
    syncRows(state_.micSources(), micRows_, micRowsLayout_);
}

QWidget* ContentView::buildHeader() {
    header_ = new ConsoleSurface(this);
    header_->setPalette(Theme::consolePalette());
    auto* column = new QVBoxLayout(header_);
    column->setContentsMargins(18, 14, 18, 14);
    column->setSpacing(12);

    recordButton_ = new RecordButton(header_);
    recordButton_->setClock(clock_);
    connect(recordButton_, &QAbstractButton::clicked, this, &ContentView::onRecordPressed);
    timecode_ = new TimecodeLCDView(header_);
    timecode_->setClock(clock_);
    status_ = new QLabel(header_);
    status_->setObjectName("statusLine");
    monitorSwitch_ = new MonitorSwitch(header_);
    monitorSwitch_->setToolTip(
        tr("Play the mix being recorded (every source at its set volume, including "
           "microphones) through your speakers or headphones. Recorded apps are silenced at the "
           "speakers and replaced by this mix. When off, apps keep playing normally. Set before "
           "recording."));
    connect(monitorSwitch_, &QAbstractButton::toggled, this, [this](bool on) {
        if (on != state_.passthroughEnabled()) {
            state_.setPassthroughEnabled(on);
        }
    });

    auto* time = new QVBoxLayout;
    time->setSpacing(1);
    time->addWidget(timecode_, 0, Qt::AlignLeft);
    time->addWidget(status_, 0, Qt::AlignLeft);
    auto* transport = new QHBoxLayout;
    transport->setSpacing(18);
    transport->addWidget(recordButton_, 0, Qt::AlignVCenter);
    transport->addLayout(time);
    transport->addStretch(1);
    transport->addWidget(monitorSwitch_, 0, Qt::AlignVCenter);
    column->addLayout(transport);

    masterMeter_ = new MasterLevelMeter(header_);
    masterMeter_->setClock(clock_);
    column->addWidget(masterMeter_);

    messages_ = new QWidget(header_);
    messagesLayout_ = new QVBoxLayout(messages_);
    messagesLayout_->setContentsMargins(0, 0, 0, 0);
    messagesLayout_->setSpacing(12);
    column->addWidget(messages_);
    return header_;
}

QWidget* ContentView::buildList() {
    auto* scroll = new QScrollArea(this);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // The window's background shows through the list.
    scroll->viewport()->setAutoFillBackground(false);
    auto* content = new QWidget(scroll);
    content->setAutoFillBackground(false);
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(12, 10, 12, 10);
    column->setSpacing(2);

    column->addWidget(sectionHeader(tr("System"), content));
    systemRow_ = makeRow(state_.systemSource(), content);
    column->addWidget(systemRow_);
    column->addSpacing(12);

    auto* appsHeader = new QHBoxLayout;
    appsHeader->addWidget(sectionHeader(tr("Applications"), content), 0, Qt::AlignVCenter);
    appsHeader->addStretch(1);
    auto* capsule = new SearchCapsule(content);
    capsule->setFixedWidth(150);
    auto* search = new QHBoxLayout(capsule);
    search->setContentsMargins(8, 3, 8, 3);
    search->setSpacing(5);
    auto* magnifier = new QLabel(capsule);
    magnifier->setPixmap(SymbolImages::pixmap("magnifyingglass", QSize(11, 11),
                                              Theme::secondary(palette()), devicePixelRatioF()));
    magnifier->setAccessibleName(QString());
    search->addWidget(magnifier, 0, Qt::AlignVCenter);
    searchField_ = new QLineEdit(capsule);
    searchField_->setFrame(false);
    searchField_->setPlaceholderText(tr("Search apps"));
    searchField_->setAccessibleName(tr("Search applications"));
    searchField_->setStyleSheet("QLineEdit { background: transparent; }");
    QFont small = searchField_->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    searchField_->setFont(small);
    search->addWidget(searchField_, 1);
    connect(searchField_, &QLineEdit::textChanged, this, &ContentView::setAppFilter);
    appsHeader->addWidget(capsule, 0, Qt::AlignVCenter);
    column->addLayout(appsHeader);
    appRowsLayout_ = new QVBoxLayout;
    appRowsLayout_->setSpacing(2);
    column->addLayout(appRowsLayout_);
    column->addSpacing(12);

    column->addWidget(sectionHeader(tr("Microphones"), content));
    noInputs_ = new QLabel(tr("No input devices found"), content);
    setTextColor(noInputs_, Theme::secondary(noInputs_->palette()));
    noInputs_->setContentsMargins(8, 4, 8, 4);
    column->addWidget(noInputs_);
    micRowsLayout_ = new QVBoxLayout;
    micRowsLayout_->setSpacing(2);
    column->addLayout(micRowsLayout_);
    column->addStretch(1);

    scroll->setWidget(content);
    return scroll;
}

QWidget* ContentView::buildFooter() {
    auto* footer = new QWidget(this);
    auto* row = new QHBoxLayout(footer);
    row->setContentsMargins(10, 10, 10, 10);
    row->setSpacing(12);
    folderButton_ = new QPushButton(tr("Recordings Folder"), footer);
    folderButton_->setIcon(SymbolImages::icon("folder", Theme::primary(palette())));
    connect(folderButton_, &QPushButton::clicked, this,
            [this] { state_.openRecordingsFolder(state_.recordingsFolderURL()); });
    row->addWidget(folderButton_);
    row->addStretch(1);
    lastRecordingButton_ = new QPushButton(footer);
    lastRecordingButton_->setIcon(SymbolImages::icon("waveform", Theme::primary(palette())));
    lastRecordingButton_->setToolTip(tr("Show the last recording in its folder"));
    connect(lastRecordingButton_, &QPushButton::clicked, this,
            [this] { state_.revealLastRecording(); });
    row->addWidget(lastRecordingButton_);
    return footer;
}

void ContentView::showStatusNotice(const QString& notice) {
    if (state_.isBusy()) {
        statusNotice_ = notice;
        updateTransport();
    }
}

QString ContentView::statusText() const {
    if (!statusNotice_.isEmpty()) {
        return statusNotice_;
    }
    if (state_.isRecording()) {
        return tr("Recording");
    }
    if (state_.isStartingRecording()) {
        return tr("Starting…");
    }
    if (state_.isStoppingRecording()) {
        return tr("Saving…");
    }
    const auto count = int(state_.selectedSources().size());
    if (count > 0) {
        // English grammar without a loaded translation: the noun follows the count.
        return count == 1 ? tr("Ready · %n source armed", nullptr, count)
                          : tr("Ready · %n sources armed", nullptr, count);
    }
    if (state_.showSelectionHint()) {
        return tr("First, tick a source below");
    }
    return tr("Select sources below");
}

void ContentView::setReduceMotion(bool reduce) {
    reduceMotion_ = reduce;
    recordButton_->setReduceMotion(reduce);
    systemRow_->setReduceMotion(reduce);
    for (const auto* rows : {&appRows_, &micRows_}) {
        for (SourceRowView* row : *rows) {
            row->setReduceMotion(reduce);
        }
    }
    if (reduce) {
        selectionHint_.jumpTo(selectionHint_.target());
        setTextColor(status_, statusColor());
    }
}

void ContentView::moveSelectionHint() {
    const double target = state_.showSelectionHint() ? 1.0 : 0.0;
    if (reduceMotion_) {
        selectionHint_.jumpTo(target);
        setTextColor(status_, statusColor());
        return;
    }
    if (!selectionHint_.isMoving()) {
        hintFrame_ = clock_->now();
    }
    selectionHint_.animateTo(target, Theme::defaultAnimation());
    clock_->requestFrame();
}

void ContentView::advanceSelectionHint() {
    if (!selectionHint_.isMoving()) {
        return;
    }
    const auto now = clock_->now();
    const bool moving =
        selectionHint_.step(std::chrono::duration<double>(now - hintFrame_).count());
    hintFrame_ = now;
    setTextColor(status_, statusColor());
    if (moving) {
        clock_->requestFrame();
    }
}

QColor ContentView::statusColor() const {
    if (state_.isRecording()) {
        return Theme::signalRed();
    }
    if (state_.isStartingRecording() || state_.isStoppingRecording()) {
        return Theme::consoleAmber();
    }
    const QColor rest = Theme::secondary(header_->palette());
    if (!state_.selectedSources().empty()) {
        return rest;
    }
    // The hint's colour comes and goes with the toolkit's default motion.
    return Theme::mixed(rest, Theme::orange(), selectionHint_.value());
}

bool ContentView::statusBold() const {
    return !state_.isBusy() && state_.selectedSources().empty() && state_.showSelectionHint();
}

void ContentView::updateTransport() {
    const bool recording = state_.isRecording();
    const bool busy = state_.isBusy();
    if (!busy) {
        statusNotice_.clear();
    }
    recordButton_->setRecording(recording);
    recordButton_->setKeyEnabled(recording || (!state_.selectedSources().empty() && !busy));
    timecode_->setRecording(recording);
    status_->setText(statusText());
    status_->setFont(Theme::statusFont(statusBold()));
    setTextColor(status_, statusColor());
    const QSignalBlocker blocker(monitorSwitch_);
    monitorSwitch_->setChecked(state_.passthroughEnabled());
    monitorSwitch_->setEnabled(!busy);
    monitorSwitch_->update();
}

void ContentView::onRecordPressed() {
    if (!state_.isRecording() && state_.selectedSources().empty()) {
        state_.flashSelectionHint();
    } else {
        state_.toggleRecording();
    }
}

std::vector<QWidget*> ContentView::messageLines() const {
    std::vector<QWidget*> lines;
    for (int i = 0; i < messagesLayout_->count(); ++i) {
        if (QWidget* line = messagesLayout_->itemAt(i)->widget()) {
            lines.push_back(line);
        }
    }
    return lines;
}

void ContentView::updateMessages() {
    // Old lines go later: the dismiss that caused this may still be inside its own click.
    for (QWidget* line : messageLines()) {
        messagesLayout_->removeWidget(line);
        line->hide();
        line->deleteLater();
    }
    if (const auto& error = state_.errorMessage()) {
        auto* line =
            new MessageLine(messages_, Theme::red(), "exclamationmark.triangle.fill", *error);
        line->setObjectName("errorLine");
        connect(line->addDismiss(), &QToolButton::clicked, this,
                [this] { state_.dismissErrorMessage(); });
        messagesLayout_->addWidget(line);
    }
    for (const QString& warning : state_.sourceWarnings()) {
        auto* line =
            new MessageLine(messages_, Theme::orange(), "exclamationmark.triangle.fill", warning);
        line->setObjectName("warningLine");
        connect(line->addDismiss(), &QToolButton::clicked, this,
                [this, warning] { state_.dismissSourceWarning(warning); });
        messagesLayout_->addWidget(line);
    }
    if (const auto& saved = state_.savedMessage(); saved && !state_.isRecording()) {
        auto* line = new MessageLine(messages_, Theme::green(), "checkmark.circle.fill", *saved);
        line->setObjectName("savedLine");
        auto* reveal = new QPushButton(tr("Show in Folder"), line);
        reveal->setObjectName("revealButton");
        connect(reveal, &QPushButton::clicked, this, [this] { state_.revealLastRecording(); });
        line->row()->addWidget(reveal, 0, Qt::AlignVCenter);
        connect(line->addDismiss(), &QToolButton::clicked, this,
                [this] { state_.dismissSavedMessage(); });
        messagesLayout_->addWidget(line);
    }
    messages_->setVisible(messagesLayout_->count() > 0);
}

void ContentView::updateFooter() {
    const auto& url = state_.lastRecordingURL();
    lastRecordingButton_->setVisible(url.has_value());
    if (url) {
        lastRecordingButton_->setText(url->fileName());
    }
}

void ContentView::setAppFilter(const QString& text) {
    if (text == appFilter_) {
        return;
    }
    appFilter_ = text;
    if (searchField_->text() != text) {
        const QSignalBlocker blocker(searchField_);
        searchField_->setText(text);
    }
    // Only the newest pause may write; older deadlines find a newer generation and stop.
    const quint64 generation = ++searchGeneration_;
    clock_->callAt(clock_->now() + searchDebounce, this, [this, generation, text] {
        if (generation == searchGeneration_) {
            setDebouncedFilter(text);
        }
    });
}

void ContentView::setDebouncedFilter(const QString& text) {
    if (text == debouncedFilter_) {
        return;
    }
    debouncedFilter_ = text;
    rebuildFilteredApps();
}

void ContentView::rebuildFilteredApps() {
    const QString needle = debouncedFilter_.trimmed();
    filteredApps_.clear();
    for (const RecordingSource& source : state_.appSources()) {
        if (needle.isEmpty() ||
            QString::fromStdString(source.name).contains(needle, Qt::CaseInsensitive)) {
            filteredApps_.push_back(source);
        }
    }
    syncRows(filteredApps_, appRows_, appRowsLayout_);
}

SourceRowView* ContentView::makeRow(const RecordingSource& source, QWidget* parent) {
    auto* row = new SourceRowView(state_, icons_, levels_, source, parent);
    row->setClock(clock_);
    row->setReduceMotion(reduceMotion_);
    return row;
}

void ContentView::syncRows(const std::vector<RecordingSource>& sources,
                           std::vector<SourceRowView*>& rows, QVBoxLayout* layout) {
    // Rows are kept by id, so a refresh doesn't reset a row's icon or volume.
    std::map<std::string, SourceRowView*> old;
    for (SourceRowView* row : rows) {
        layout->removeWidget(row);
        old[row->source().id] = row;
    }
    rows.clear();
    QWidget* parent = systemRow_->parentWidget();
    for (const RecordingSource& source : sources) {
        SourceRowView* row = nullptr;
        if (auto found = old.find(source.id); found != old.end()) {
            row = found->second;
            old.erase(found);
            if (!(row->source() == source)) {
                row->setSource(source);
            }
        } else {
            row = makeRow(source, parent);
        }
        layout->addWidget(row);
        row->show();
        rows.push_back(row);
    }
    for (auto& [id, row] : old) {
        row->hide();
        row->deleteLater();
    }
    if (layout == micRowsLayout_) {
        noInputs_->setVisible(sources.empty());
    }
}

void ContentView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (appeared_) {
        return;
    }
    appeared_ = true;
    state_.refreshSources();
    state_.startSourceRefreshTimer();
    if (!state_.hasCompletedOnboarding() && openWindow_) {
        openWindow_("onboarding");
    }
    rebuildFilteredApps();
}

void ContentView::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (!event->spontaneous()) {
        appeared_ = false;
        state_.stopSourceRefreshTimer();
    }
}

}  // namespace bw
