#include "app/IconThemeLookup.h"

#include <QDir>
#include <QFileInfo>
#include <QIcon>
#include <QImageReader>
#include <QSettings>
#include <QStandardPaths>

namespace bw {

namespace {

// Size folders in the order tried: the preferred size first, then larger ones (they scale down
// well), then smaller ones.
const QStringList& sizeFolders() {
    static const QStringList folders = {
        QStringLiteral("64x64"),   QStringLiteral("scalable"), QStringLiteral("96x96"),
        QStringLiteral("128x128"), QStringLiteral("256x256"),  QStringLiteral("512x512"),
        QStringLiteral("48x48"),   QStringLiteral("32x32"),    QStringLiteral("24x24"),
        QStringLiteral("22x22"),   QStringLiteral("16x16"),    QStringLiteral("64"),
        QStringLiteral("48"),      QStringLiteral("32")};
    return folders;
}

QStringList inheritedThemes(const QStringList& iconFolders, const QString& theme) {
    for (const QString& folder : iconFolders) {
        const QString index = QDir(folder).filePath(theme + QStringLiteral("/index.theme"));
        if (QFileInfo::exists(index)) {
            QSettings entry(index, QSettings::IniFormat);
            return entry.value(QStringLiteral("Icon Theme/Inherits")).toStringList();
        }
    }
    return {};
}

}  // namespace

IconThemeLookup::IconThemeLookup(QStringList themes, QStringList iconFolders,
                                 QStringList pixmapFolders)
    : themes_(std::move(themes)),
      iconFolders_(std::move(iconFolders)),
      pixmapFolders_(std::move(pixmapFolders)) {
    const auto readable = QImageReader::supportedImageFormats();
    for (const char* format : {"png", "svg", "xpm"}) {
        if (readable.contains(format)) {
            extensions_.append(QString::fromLatin1(format));
        }
    }
}

IconThemeLookup IconThemeLookup::forDesktop() {
    QStringList iconFolders;
    QStringList pixmapFolders;
    iconFolders.append(QDir::home().filePath(QStringLiteral(".icons")));
    for (const QString& data :
         QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation)) {
        iconFolders.append(QDir(data).filePath(QStringLiteral("icons")));
        pixmapFolders.append(QDir(data).filePath(QStringLiteral("pixmaps")));
    }
    QStringList themes;
    const QString current = QIcon::themeName();
    if (!current.isEmpty()) {
        themes.append(current);
        for (const QString& parent : inheritedThemes(iconFolders, current)) {
            if (!themes.contains(parent)) {
                themes.append(parent);
            }
        }
    }
    if (!themes.contains(QStringLiteral("hicolor"))) {
        themes.append(QStringLiteral("hicolor"));
    }
    return IconThemeLookup(themes, iconFolders, pixmapFolders);
}

std::optional<QString> IconThemeLookup::find(const QString& iconKey) const {
    if (iconKey.isEmpty()) {
        return std::nullopt;
    }
    if (QDir::isAbsolutePath(iconKey)) {
        return QFileInfo(iconKey).isFile() ? std::optional(iconKey) : std::nullopt;
    }
    // Some entries name the file, extension included.
    QString name = iconKey;
    for (const QString& extension :
         {QStringLiteral("png"), QStringLiteral("svg"), QStringLiteral("xpm")}) {
        if (name.endsWith(QLatin1Char('.') + extension)) {
            name.chop(extension.size() + 1);
        }
    }
    for (const QString& theme : themes_) {
        for (const QString& folder : iconFolders_) {
            const QDir themeDir(QDir(folder).filePath(theme));
            if (!themeDir.exists()) {
                continue;
            }
            for (const QString& size : sizeFolders()) {
                for (const QString& extension : extensions_) {
                    const QString file = themeDir.filePath(size + QStringLiteral("/apps/") + name +
                                                           QLatin1Char('.') + extension);
                    if (QFileInfo(file).isFile()) {
                        return file;
                    }
                }
            }
        }
    }
    for (const QString& folder : pixmapFolders_) {
        for (const QString& extension : extensions_) {
            const QString file = QDir(folder).filePath(name + QLatin1Char('.') + extension);
            if (QFileInfo(file).isFile()) {
                return file;
            }
        }
    }
    return std::nullopt;
}

std::optional<QImage> IconThemeLookup::load(const QString& iconKey) const {
    const auto file = find(iconKey);
    if (!file) {
        return std::nullopt;
    }
    QImageReader reader(*file);
    const QSize size = reader.size();
    if (size.isValid() && (size.width() > 128 || size.height() > 128)) {
        reader.setScaledSize(size.scaled(128, 128, Qt::KeepAspectRatio));
    }
    QImage image = reader.read();
    if (image.isNull()) {
        return std::nullopt;
    }
    return image;
}

}  // namespace bw
