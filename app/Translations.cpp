#include "app/Translations.h"

#include <QCoreApplication>
#include <QDir>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

#include "platform/base/Localization.h"

namespace bw {

void Translations::install() {
    const QLocale locale;
    const QString ours =
        QDir(QCoreApplication::applicationDirPath())
            .absoluteFilePath(QStringLiteral("../share/brightwave-record/translations"));
    const std::pair<QString, QString> catalogues[] = {
        {QStringLiteral("qtbase"), QLibraryInfo::path(QLibraryInfo::TranslationsPath)},
        {QStringLiteral("brightwave-record"), ours},
    };
    for (const auto& [name, folder] : catalogues) {
        auto* translator = new QTranslator(QCoreApplication::instance());
        if (translator->load(locale, name, QStringLiteral("_"), folder)) {
            QCoreApplication::installTranslator(translator);
        } else {
            delete translator;
        }
    }
    setLocalizationLookup([](const char* context, const char* english) {
        return QCoreApplication::translate(context, english).toStdString();
    });
}

}  // namespace bw
