#pragma once

#include <QWidget>

class QScrollArea;

namespace bw {

/// The help window's page: how to record in three numbered steps, then two questions and their
/// answers. A static page in a fixed 480 × 520 frame; text that doesn't fit scrolls inside it
/// rather than growing the window. No state, no links. GUI thread only.
class HelpView : public QWidget {
    Q_OBJECT
public:
    static constexpr int fixedWidth = 480;
    static constexpr int fixedHeight = 520;

    explicit HelpView(QWidget* parent = nullptr);

    QScrollArea* scrollArea() const { return scroll_; }

private:
    QScrollArea* scroll_;
};

}  // namespace bw
