#include "interface/ConsoleAccessibility.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QWidget>
#include <optional>

#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/LevelMeterView.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolView.h"
#include "interface/TimecodeLCDView.h"

namespace bw {

namespace {

/// A value on a percent scale as the widget speaks it: `accessiblePercent` from `minimum` to
/// `maximum`; settable ones go through the widget's `editTo` (a fraction of unity).
struct PercentRange {
    int minimum = 0;
    int maximum = 100;
    int step = 1;
    bool settable = false;
};

class ConsoleAccessibleWidget final : public QAccessibleWidget, public QAccessibleValueInterface {
public:
    enum class Kind { plain, adjustable, hidden };

    ConsoleAccessibleWidget(QWidget* widget, QAccessible::Role role, Kind kind,
                            std::optional<PercentRange> range = std::nullopt)
        : QAccessibleWidget(widget, role), kind_(kind), range_(range) {}

    void* interface_cast(QAccessible::InterfaceType type) override {
        if (type == QAccessible::ValueInterface && range_) {
            return static_cast<QAccessibleValueInterface*>(this);
        }
        return QAccessibleWidget::interface_cast(type);
    }

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

    QVariant currentValue() const override { return widget()->property("accessiblePercent"); }
    void setCurrentValue(const QVariant& value) override {
        if (range_ && range_->settable) {
            QMetaObject::invokeMethod(widget(), "editTo", Q_ARG(float, value.toFloat() / 100.0f));
        }
    }
    QVariant maximumValue() const override { return range_ ? range_->maximum : 0; }
    QVariant minimumValue() const override { return range_ ? range_->minimum : 0; }
    QVariant minimumStepSize() const override { return range_ ? range_->step : 0; }

private:
    Kind kind_;
    std::optional<PercentRange> range_;
};

/// A container whose children marked `accessibilityHidden` stay out of the tree (a text that a
/// neighbouring control already speaks, a decoration).
class FilteringAccessibleWidget final : public QAccessibleWidget {
public:
    using QAccessibleWidget::QAccessibleWidget;

    int childCount() const override { return int(shownChildren().size()); }
    QAccessibleInterface* child(int index) const override {
        const QList<QWidget*> children = shownChildren();
        return index >= 0 && index < children.size()
                   ? QAccessible::queryAccessibleInterface(children[index])
                   : nullptr;
    }
    int indexOfChild(const QAccessibleInterface* child) const override {
        return child ? int(shownChildren().indexOf(qobject_cast<QWidget*>(child->object()))) : -1;
    }
    QAccessibleInterface* childAt(int x, int y) const override {
        QAccessibleInterface* found = QAccessibleWidget::childAt(x, y);
        return found && indexOfChild(found) >= 0 ? found : nullptr;
    }

private:
    QList<QWidget*> shownChildren() const {
        QList<QWidget*> shown;
        for (QObject* object : widget()->children()) {
            auto* child = qobject_cast<QWidget*>(object);
            if (child && !child->isWindow() &&
                !child->property(ConsoleAccessibility::kHiddenProperty).toBool()) {
                shown.append(child);
            }
        }
        return shown;
    }
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
        return new ConsoleAccessibleWidget(widget, QAccessible::ProgressBar, Kind::plain,
                                           PercentRange{0, 100, 1, false});
    }
    if (is(className, ChannelFader::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::Slider, Kind::adjustable,
                                           PercentRange{0, 150, 10, true});
    }
    if (is(className, TimecodeLCDView::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::StaticText, Kind::plain);
    }
    if (is(className, ArmIndicator::staticMetaObject) ||
        is(className, LevelMeterView::staticMetaObject) ||
        is(className, SymbolView::staticMetaObject)) {
        return new ConsoleAccessibleWidget(widget, QAccessible::Graphic, Kind::hidden);
    }
    if (widget->property(ConsoleAccessibility::kHidesChildrenProperty).toBool()) {
        return new FilteringAccessibleWidget(widget);
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

void ConsoleAccessibility::hide(QWidget* widget) {
    widget->setProperty(kHiddenProperty, true);
    if (QWidget* parent = widget->parentWidget()) {
        parent->setProperty(kHidesChildrenProperty, true);
    }
}

void ConsoleAccessibility::notifyValueChanged(QWidget* widget) {
    if (!QAccessible::isActive()) {
        return;
    }
    QAccessibleValueChangeEvent event(widget, widget->property("accessibleValue"));
    QAccessible::updateAccessibility(&event);
}

}  // namespace bw
