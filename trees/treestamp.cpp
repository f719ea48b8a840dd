#include "trees/treestamp.h"

#include "trees/fileprobe.h"
#include "trees/migrationrules.h"
#include "trees/separator.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QPair>
#include <QSaveFile>
#include <QVector>

#include <algorithm>
#include <cerrno>

#include <dirent.h>
#include <sys/stat.h>

namespace tulo {

namespace {

/// In front of the digest: what the file is, and the number of its format.
constexpr char stampBegin[] = "tulo-stamp 1 ";
constexpr int stampBytes = int(sizeof stampBegin - 1) + 64 + 1;

using Identity = QPair<quint64, quint64>;

bool isReadByWorker(const QByteArray& name)
{
    return !name.startsWith('.') || name == ".meta";
}

class Digest
{
public:
    // All entries of a directory, `below` the top, that `isWanted` accepts.
    void addDirectory(const QByteArray& directory, const QByteArray& below,
                      bool (*isWanted)(const QByteArray& name))
    {
        struct stat status = {};
        DIR* const stream = ::opendir(directory.constData());
        if (stream == nullptr || ::stat(directory.constData(), &status) != 0) {
            fail(directory, qt_error_string(errno));
            if (stream != nullptr)
                ::closedir(stream);
            return;
        }
        QVector<QByteArray> names;
        while (const struct dirent* entry = ::readdir(stream))
            names.append(QByteArray(static_cast<const char*>(entry->d_name)));
        ::closedir(stream);
        std::sort(names.begin(), names.end());

        m_around.append({ status.st_dev, status.st_ino });
        for (const QByteArray& name : qAsConst(names)) {
            if (name != "." && name != ".." && isWanted(name) && m_error.isEmpty())
                add(directory + '/' + name, below + '/' + name, isWanted);
        }
        m_around.removeLast();
    }

    QByteArray result(QString* error) const
    {
        *error = m_error;
        return m_error.isEmpty() ? m_hash.result().toHex() : QByteArray();
    }

private:
    void add(const QByteArray& fileName, const QByteArray& below,
             bool (*isWanted)(const QByteArray& name))
    {
        struct stat status = {};
        if (::stat(fileName.constData(), &status) != 0) {
            // A link that leads nowhere is nothing to the worker.
            if (errno != ENOENT && errno != ELOOP)
                fail(fileName, qt_error_string(errno));
        } else if (S_ISREG(status.st_mode)) {
            addFile(fileName, below);
        } else if (S_ISDIR(status.st_mode)
                   && !m_around.contains({ status.st_dev, status.st_ino })) {
            addDirectory(fileName, below, isWanted);
        }
    }

    void addFile(const QByteArray& fileName, const QByteArray& below)
    {
        QFile file(QFile::decodeName(fileName));
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            fail(fileName, file.errorString());
            return;
        }
        const QByteArray content = file.read(FileProbe::maximumFileBytes + 1);
        if (file.error() != QFileDevice::NoError)
            fail(fileName, file.errorString());
        else if (content.size() > FileProbe::maximumFileBytes)
            fail(fileName, QStringLiteral("is larger than 1 MiB"));
        // With the lengths, so that no name can be taken for a content.
        m_hash.addData(below + '\n' + QByteArray::number(content.size()) + '\n');
        m_hash.addData(content);
    }

    void fail(const QByteArray& fileName, const QString& reason)
    {
        if (m_error.isEmpty())
            m_error = QFile::decodeName(fileName) + QStringLiteral(": ") + reason;
    }

    QCryptographicHash m_hash { QCryptographicHash::Sha256 };
    QVector<Identity> m_around; ///< directories that are being read
    QString m_error;
};

} // namespace

QByteArray treeDigest(const QString& defaultPath, QString* error)
{
    Digest digest;
    digest.addDirectory(QFile::encodeName(defaultPath), QByteArray(), isReadByWorker);
    return digest.result(error);
}

QByteArray imageDigest(const QString& defaultPath, QString* error)
{
    Digest digest;
    digest.addDirectory(QFile::encodeName(defaultPath), "default", isReadByWorker);
    const QString rules = migrationsBeside(defaultPath);
    if (QFile::exists(rules)) {
        digest.addDirectory(QFile::encodeName(rules), "migrations",
                            [](const QByteArray& name) { return !name.startsWith('.'); });
    }
    return digest.result(error);
}

QString stampFile(const QString& defaultPath)
{
    return defaultPath + separator + stampName();
}

QByteArray readStamp(const QString& defaultPath)
{
    QFile file(stampFile(defaultPath));
    struct stat status = {};
    // A pipe would not open.
    if (::stat(QFile::encodeName(file.fileName()).constData(), &status) != 0
        || !S_ISREG(status.st_mode) || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QByteArray();
    const QByteArray text = file.read(stampBytes + 1);
    if (text.size() != stampBytes || !text.startsWith(stampBegin) || !text.endsWith('\n'))
        return QByteArray();
    return text.mid(int(sizeof stampBegin - 1)).chopped(1);
}

bool isStampStale(const QString& defaultPath)
{
    if (!QFile::exists(stampFile(defaultPath)))
        return false;
    QString error;
    const QByteArray digest = imageDigest(defaultPath, &error);
    return error.isEmpty() && digest != readStamp(defaultPath);
}

QString writeStamp(const QString& defaultPath)
{
    QString error;
    const QByteArray digest = imageDigest(defaultPath, &error);
    if (!error.isEmpty())
        return error;
    QSaveFile file(stampFile(defaultPath));
    if (!file.open(QIODevice::WriteOnly) || file.write(stampBegin + digest + '\n') < 0
        || !file.commit())
        return file.fileName() + QStringLiteral(": ") + file.errorString();
    return QString();
}

} // namespace tulo
