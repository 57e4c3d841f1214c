#include "app/OutputNaming.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QStandardPaths>
#include <cerrno>
#include <filesystem>

namespace bw {

namespace {

enum class Claim { created, taken, failed };

/// O_EXCL makes the check and the creation one step, so a racing start can't take the name too.
Claim claim(const QString& path) {
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        ::close(fd);
        return Claim::created;
    }
    return errno == EEXIST ? Claim::taken : Claim::failed;
}

bool exists(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0;
}

/// "base.ext", else "base (2).ext", … the first that could be claimed (or that can't be made at
/// all: the recording's own file creation tells the user why).
QString claimFirstFree(const QDir& dir, const QString& base, const QString& extension) {
    QString candidate = dir.filePath(base + QLatin1Char('.') + extension);
    for (qint64 counter = 2;; ++counter) {
        if (!exists(candidate)) {
            const Claim claimed = claim(candidate);
            if (claimed != Claim::taken) {
                return candidate;
            }
        }
        candidate =
            dir.filePath(QStringLiteral("%1 (%2).%3").arg(base).arg(counter).arg(extension));
    }
}

// Bytes a source's name may take in a file name: with the recording's name, a counter and the
// extension it stays far below the 255 bytes file systems allow.
constexpr qsizetype kMostNameBytes = 120;

}  // namespace

QString OutputNaming::baseName(const QDateTime& date) {
    return QStringLiteral("Recording ") +
           QLocale::c().toString(date, QStringLiteral("yyyy-MM-dd 'at' HH.mm.ss"));
}

QUrl OutputNaming::defaultRecordingsFolder() {
    return defaultRecordingsFolder(QStandardPaths::standardLocations(QStandardPaths::MusicLocation),
                                   QDir::homePath());
}

QUrl OutputNaming::defaultRecordingsFolder(const QStringList& musicLocations, const QString& home) {
    const QString music =
        musicLocations.isEmpty() ? QDir(home).filePath(QStringLiteral("Music")) : musicLocations[0];
    return QUrl::fromLocalFile(QDir(music).filePath(QStringLiteral("BrightwaveRecord")));
}

QUrl OutputNaming::makeOutputURL(const QUrl& folder, const QDateTime& date,
                                 const QString& extension) {
    const QDir dir(folder.toLocalFile());
    const QString base = baseName(date);
    std::error_code ignored;
    std::filesystem::create_directories(QFile::encodeName(dir.path()).toStdString(), ignored);

    return QUrl::fromLocalFile(claimFirstFree(dir, base, extension));
}

QUrl OutputNaming::makeSourceFileURL(const QUrl& recording, const QString& sourceName) {
    const QFileInfo file(recording.toLocalFile());
    const QString base =
        file.completeBaseName() + QStringLiteral(" – ") + safeFileNamePart(sourceName);
    return QUrl::fromLocalFile(claimFirstFree(file.dir(), base, file.suffix()));
}

std::map<std::string, std::filesystem::path> OutputNaming::makeSourceFileURLs(
    const QUrl& recording, const std::vector<RecordingSource>& sources) {
    std::map<std::string, std::filesystem::path> files;
    for (const auto& source : sources) {
        const QUrl own = makeSourceFileURL(recording, QString::fromStdString(source.name));
        files[source.id] = QFile::encodeName(own.toLocalFile()).toStdString();
    }
    return files;
}

QString OutputNaming::safeFileNamePart(const QString& name) {
    QString safe;
    for (const QChar c : name) {
        if (c.category() == QChar::Other_Control || QStringLiteral("/\\:*?\"<>|").contains(c)) {
            safe += QLatin1Char('-');
        } else {
            safe += c;
        }
    }
    safe = safe.simplified();
    while (safe.startsWith(QLatin1Char('.')) || safe.startsWith(QLatin1Char(' '))) {
        safe.remove(0, 1);
    }
    while (safe.toUtf8().size() > kMostNameBytes) {
        safe.chop(safe.size() >= 2 && safe.back().isLowSurrogate() ? 2 : 1);
    }
    safe = safe.trimmed();
    return safe.isEmpty() ? QStringLiteral("Source") : safe;
}

QString OutputNaming::displayPath(const QUrl& folder) {
    return displayPath(folder, QDir::homePath());
}

QString OutputNaming::displayPath(const QUrl& folder, const QString& home) {
    const QString path = QDir::cleanPath(folder.toLocalFile());
    if (path == home) {
        return QStringLiteral("~");
    }
    QString rest = path;
    if (path.startsWith(home + QLatin1Char('/'))) {
        rest = path.mid(home.size());
    }
    const QStringList pieces = rest.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (pieces.isEmpty()) {
        return folder.toLocalFile();
    }
    return pieces.join(QStringLiteral(" ▸ "));
}

}  // namespace bw
