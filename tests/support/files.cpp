#include "tests/support/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

QByteArray readFile(const QString& name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray content = file.readAll();
    return content.isNull() ? QByteArray("") : content;
}

void writeFile(const QString& name, const QByteArray& content)
{
    QFile file(name);
    if (!QDir().mkpath(QFileInfo(name).path()) || !file.open(QIODevice::WriteOnly)
        || file.write(content) != content.size() || !file.flush())
        qFatal("cannot write the file %s", qPrintable(name));
}
