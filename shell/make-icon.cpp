// Writes the program's icon as PNGs for installation: make-icon <folder> <side>...
#include <QDir>
#include <QGuiApplication>

#include "shell/ApplicationIcon.h"

int main(int argc, char* argv[]) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    if (argc < 3) {
        qCritical("usage: make-icon <folder> <side>...");
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    for (int index = 2; index < argc; ++index) {
        const int side = QString::fromLatin1(argv[index]).toInt();
        const QString path = folder.filePath(QStringLiteral("%1.png").arg(side));
        if (side <= 0 || !bw::ApplicationIcon::image(side).save(path)) {
            qCritical("cannot write %s", qPrintable(path));
            return 1;
        }
    }
    return 0;
}
