#pragma once

#include <QImage>
#include <QString>
#include <QStringList>
#include <optional>

namespace bw {

/// Finds an application icon by the Icon key of its desktop entry: an absolute path as it
/// stands, else a name looked up in the icon theme (the desktop's theme, the themes it
/// inherits, then "hicolor"), under every icon folder of the XDG data folders, and at last in
/// the pixmaps folder. Prefers application icons near 64 pixels; formats Qt can't read here
/// (SVG without its plugin) are passed over.
///
/// Thread: make it on the main thread (it reads the desktop's theme); afterwards it is
/// immutable and its members may run on any thread at once. Lookups block on the file system.
class IconThemeLookup {
public:
    static constexpr int kPreferredSize = 64;

    IconThemeLookup(QStringList themes, QStringList iconFolders, QStringList pixmapFolders);

    /// The lookup for this user's desktop.
    static IconThemeLookup forDesktop();

    /// The file of the icon, or nothing.
    std::optional<QString> find(const QString& iconKey) const;

    /// The icon, read and scaled down to at most 128 pixels, or nothing.
    std::optional<QImage> load(const QString& iconKey) const;

private:
    QStringList themes_;
    QStringList iconFolders_;
    QStringList pixmapFolders_;
    QStringList extensions_;
};

}  // namespace bw
