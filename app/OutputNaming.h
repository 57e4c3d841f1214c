#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "engine/RecordingSource.h"

namespace bw {

/// Where recordings go and what they are called: the default folder, the unique file name of a
/// new recording, and the way a folder is shown to the user. No state.
class OutputNaming {
public:
    /// "Recording " + the date as "yyyy-MM-dd 'at' HH.mm.ss" in the C locale, local time.
    static QString baseName(const QDateTime& date);

    /// The first music folder (else the home folder's "Music") with "BrightwaveRecord" appended.
    /// Creates nothing. Any thread.
    static QUrl defaultRecordingsFolder();
    /// The rule behind `defaultRecordingsFolder`, for the given lookups.
    static QUrl defaultRecordingsFolder(const QStringList& musicLocations, const QString& home);

    /// A file in `folder` named after `date`, with `extension`, that didn't exist: "base.ext",
    /// else "base (2).ext", "base (3).ext", … the lowest free counter. A file or folder of that
    /// name counts as taken. The file is created empty and exclusively (the folder too, when
    /// missing), so two starts in the same second never get one name and nothing is
    /// overwritten; when it cannot be created the free name is returned anyway and the
    /// recording's own file creation reports why. Blocks on the file system: not on the main
    /// thread.
    static QUrl makeOutputURL(const QUrl& folder, const QDateTime& date, const QString& extension);

    /// The file of one source beside `recording`, in its folder and format: "<recording's name>
    /// – <source name>.ext", else with " (2)", " (3)", … before the extension, claimed the same
    /// exclusive way. The source's name is made safe first (`safeFileNamePart`). Blocks on the
    /// file system: not on the main thread.
    static QUrl makeSourceFileURL(const QUrl& recording, const QString& sourceName);

    /// `makeSourceFileURL` for each of `sources`, in order: source id → its file, as the engine
    /// takes it. Blocks on the file system: not on the main thread.
    static std::map<std::string, std::filesystem::path> makeSourceFileURLs(
        const QUrl& recording, const std::vector<RecordingSource>& sources);

    /// A name any common file system takes as part of a file name: no path separators, control
    /// characters or characters that Windows file systems refuse (each becomes "-"), blanks
    /// folded to one, no leading dots or blanks, at most 120 bytes of UTF-8 (cut between
    /// characters); "Source" when nothing is left.
    static QString safeFileNamePart(const QString& name);

    /// The folder as the user reads it: "~" for the home folder, else the path's components
    /// joined by " ▸ ", without the home part for a folder below home; "/" stays "/". Any
    /// thread.
    static QString displayPath(const QUrl& folder);
    /// The rule behind `displayPath`, for the given home folder.
    static QString displayPath(const QUrl& folder, const QString& home);
};

}  // namespace bw
