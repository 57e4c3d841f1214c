#pragma once

#include <QPixmap>
#include <QWidget>

namespace bw {

class GrainOverlay;
class GrainTextureCache;

/// The console panel: a dark warm gradient from `consoleTop` to `consoleBottom`, a film of
/// deterministic grain at opacity 0.14, a lit hairline along the top and a shadowed one along
/// the bottom. A container: child widgets stand on it. It has no input of its own.
///
/// The grain texture is made off the GUI thread by the cache and arrives a moment after the
/// first paint at a size; until then the panel is drawn without it. The whole panel is drawn
/// once per size, scale and texture into a picture, so a repaint of part of it (a meter, a glow)
/// only copies that part. GUI thread only.
class ConsoleSurface : public QWidget {
    Q_OBJECT
public:
    /// `cache` must outlive the surface; by default the shared one.
    explicit ConsoleSurface(QWidget* parent = nullptr, GrainTextureCache* cache = nullptr);

    /// The grain layer, for its loading key and texture.
    const GrainOverlay& grain() const { return *grain_; }

    /// Opacity of the grain film.
    static constexpr double grainOpacity = 0.14;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    GrainOverlay* grain_;
    QPixmap picture_;
    bool pictureStale_ = true;
};

}  // namespace bw
