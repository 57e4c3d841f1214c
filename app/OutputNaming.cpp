#include "app/OutputNaming.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <QDir>
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

    QString candidate = dir.filePath(base + QLatin1Char('.') + extension);
    for (qint64 counter = 2;; ++counter) {
        if (!exists(candidate)) {
            const Claim claimed = claim(candidate);
            if (claimed != Claim::taken) {
                break;  // ours, or unwritable: the engine's file creation tells the user why
            }
        }
        candidate =
            dir.filePath(QStringLiteral("%1 (%2).%3").arg(base).arg(counter).arg(extension));
    }
    return QUrl::fromLocalFile(candidate);
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
