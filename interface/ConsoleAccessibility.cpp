#include "interface/ConsoleAccessibility.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QWidget>

#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/LevelMeterView.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolView.h"
#include "interface/TimecodeLCDView.h"

namespace bw {

namespace {

class ConsoleAccessibleWidget final : public QAccessibleWidget {
public:
    enum class Kind { plain, adjustable, hidden };

    ConsoleAccessibleWidget(QWidget* widget, QAccessible::Role role, Kind kind)
        : QAccessibleWidget(widget, role), kind_(kind) {}

    QString text(QAccessible::Text t) const override {
        if (t == QAccessible::Value) {
            return widget()->property("accessibleValue").toString();
        }
        return QAccessibleWidget::text(t);
    }

    QAccessible::State state() const override {
        QAccessible::State s = QAccessibleWidget::state();
        if (kind_ == Kind::hidden) {
            s.invisible = true;
        }
        return s;
    }

    int childCount() const override { return 0; }
    QAccessibleInterface* child(int) const override { return nullptr; }

    QStringList actionNames() const override {
        if (kind_ == Kind::adjustable) {
            return {increaseAction(), decreaseAction()};
        }
        return QAccessibleWidget::actionNames();
    }

    void doAction(const QString& name) override {
        if (kind_ != Kind::adjustable) {
            QAccessibleWidget::doAction(name);
        } else if (name == increaseAction()) {
            QMetaObject::invokeMethod(widget(), "increment");
        } else if (name == decreaseAction()) {
            QMetaObject::invokeMethod(widget(), "decrement");
        }
    }

    QStringList keyBindingsForAction(const QString&) const override { return {}; }

private:
    Kind kind_;
};

bool is(const QString& className, const QMetaObject& meta) {
    return className == QLatin1String(meta.className());
}

QAccessibleInterface* consoleFactory(const QString& className, QObject* object) {
    if (!object || !object->isWidgetType()) {
        return nullptr;
    }
    auto* widget = static_cast<QWidget*>(object);
    using Kind = ConsoleAccessibleWidget::Kind;
    if (is(className, SegmentedMeter::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::ProgressBar, Kind::plain);
    }
    if (is(className, ChannelFader::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::Slider, Kind::adjustable);
    }
    if (is(className, TimecodeLCDView::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::StaticText, Kind::plain);
    }
    if (is(className, ArmIndicator::staticMetaObject) ||
        is(className, LevelMeterView::staticMetaObject) ||
        is(className, SymbolView::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::Graphic, Kind::hidden);
    }
    return nullptr;
}

}  // namespace

void ConsoleAccessibility::install() {
    static const bool installed = [] {
        QAccessible::installFactory(consoleFactory);
        return true;
    }();
    (void)installed;
}

void ConsoleAccessibility::notifyValueChanged(QWidget* widget) {
    if (!QAccessible::isActive()) {
        return;
    }
    QAccessibleValueChangeEvent event(widget, widget->property("accessibleValue"));
    QAccessible::updateAccessibility(&event);
}

}  // namespace bw
