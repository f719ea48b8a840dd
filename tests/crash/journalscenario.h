#pragma once

#include "trees/journal.h"
#include "trees/uniquefd.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QVector>

#include <fcntl.h>

// A change of several files that is interrupted, and what may be found afterwards.

namespace tulo {

struct ScenarioFile
{
    QString path;
    QByteArray before; ///< null: no such file
    QByteArray after; ///< null: no such file
};

/// Files that change, that are new in new directories, and that go; and a record.
inline const QVector<ScenarioFile>& scenarioFiles()
{
    static const QVector<ScenarioFile> files {
        { QStringLiteral("/audio/volume"), QByteArrayLiteral("{\"value\":{\"int\":1}}"),
          QByteArrayLiteral("{\"value\":{\"int\":2222222222}}") },
        { QStringLiteral("/audio/balance"), QByteArray(), QByteArray(5000, 'b') },
        { QStringLiteral("/radio/presets/list/first"), QByteArray(), QByteArray("{}") },
        { QStringLiteral("/radio/mode"), QByteArray(3000, 'm'), QByteArray() },
        { QStringLiteral("/vehicle/mode"), QByteArray("{\"moved\":1}"), QByteArray() },
        { QStringLiteral("/driving/mode"), QByteArray(), QByteArray("{\"moved\":1}") },
        { QStringLiteral("/.tulo-cm.record"), QByteArray(), QByteArray("done") },
    };
    return files;
}

inline bool isRecord(const ScenarioFile& file)
{
    return file.path.startsWith(QLatin1String("/."));
}

/// Makes the files of before; false when that failed.
inline bool prepareScenario(const QString& tree)
{
    for (const ScenarioFile& file : scenarioFiles()) {
        if (file.before.isNull())
            continue;
        QFile written(tree + file.path);
        if (!QDir().mkpath(QFileInfo(written).path()) || !written.open(QIODevice::WriteOnly)
            || written.write(file.before) != file.before.size())
            return false;
    }
    return true;
}

inline JournalResult commitScenario(const QString& tree)
{
    const UniqueFd directory(::open(QFile::encodeName(tree).constData(), O_RDONLY | O_DIRECTORY));
    QVector<FileChange> changes;
    QHash<QString, QByteArray> records;
    for (const ScenarioFile& file : scenarioFiles()) {
        if (isRecord(file))
            records.insert(file.path.mid(1), file.after);
        else if (file.after.isNull())
            changes.append({ file.path, std::nullopt });
        else
            changes.append({ file.path, file.after });
    }
    return commitChanges(directory.get(), changes, records);
}

inline JournalResult redoScenario(const QString& tree)
{
    const UniqueFd directory(::open(QFile::encodeName(tree).constData(), O_RDONLY | O_DIRECTORY));
    return redoJournal(directory.get());
}

enum class Found {
    Before, ///< all as it was
    After, ///< all as it shall be
    Wrong ///< neither: something is lost, or half made
};

/// What a process that opens the tree finds once it has finished what was interrupted.
inline Found findScenario(const QString& tree)
{
    bool isBefore = true;
    bool isAfter = true;
    for (const ScenarioFile& file : scenarioFiles()) {
        QFile found(tree + file.path);
        const bool exists = found.open(QIODevice::ReadOnly);
        const QByteArray content = exists ? found.readAll() : QByteArray();
        isBefore = isBefore && exists != file.before.isNull() && content == file.before;
        isAfter = isAfter && exists != file.after.isNull() && content == file.after;
    }
    return isAfter ? Found::After : isBefore ? Found::Before : Found::Wrong;
}

} // namespace tulo
