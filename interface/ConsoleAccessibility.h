#pragma once

class QWidget;

namespace bw {

/// How the console's drawn widgets speak to assistive technology (AT-SPI through QAccessible).
///
/// A widget without platform chrome has no value or actions of its own in Qt; `install` adds an
/// accessible interface for each console widget: its role, the value text from its
/// `accessibleValue` property, the value interface of the fader and the meters (`accessiblePercent`
/// with their range; the fader takes a new one through `editTo`), the increase and decrease
/// actions of the fader (its `increment` and `decrement`), and the hidden state of purely
/// decorative lamps, bars and symbols. Names stay the widgets' own `accessibleName`. GUI thread
/// only.
class ConsoleAccessibility {
public:
    ConsoleAccessibility() = delete;

    static constexpr const char* kHiddenProperty = "accessibilityHidden";
    static constexpr const char* kHidesChildrenProperty = "accessibilityHidesChildren";

    /// Registers the interfaces; further calls do nothing. Every console widget calls it.
    static void install();

    /// Keeps `widget` out of the accessibility tree: its parent no longer lists it. Call before
    /// the parent is first asked for its accessible interface (in the parent's constructor).
    static void hide(QWidget* widget);

    /// Tells assistive technology that `widget`'s value text has changed (when any listens).
    static void notifyValueChanged(QWidget* widget);
};

}  // namespace bw
