#include "shell/MenuBarLevelMeter.h"

#include <QVBoxLayout>

#include "app/AudioLevelTracker.h"
#include "app/LevelSubject.h"
#include "interface/LevelMeterView.h"

namespace bw {

MenuBarLevelMeter::MenuBarLevelMeter(AudioLevelTracker& levels, QWidget* parent)
    : QWidget(parent), meter_(new LevelMeterView(this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(meter_);
    connect(levels.publisher("master"), &LevelSubject::sent, this, &MenuBarLevelMeter::setLevel);
}

void MenuBarLevelMeter::setLevel(float level) {
    level_ = level;
    meter_->setLevel(level);
}

}  // namespace bw
