#pragma once

#include "trees/factoryreset.h"
#include "trees/uniquefd.h"

#include "tests/support/files.h"

#include <QFile>
#include <QString>
#include <QStringList>

#include <fcntl.h>

// A factory reset that is interrupted, and what may be found afterwards.

namespace tulo {

inline const QStringList& resetNames()
{
    static const QStringList names {
        QStringLiteral("/audio/balance"),       QStringLiteral("/audio/volume"),
        QStringLiteral("/presets/mine"),        QStringLiteral("/older/image/one"),
        QStringLiteral("/older/image/two"),     QStringLiteral("/top"),
        QStringLiteral("/.tulo-cm.migrations"), QStringLiteral("/.tulo-cm.journal"),
    };
    return names;
}

inline QString requestFile(const QString& tree)
{
    return tree + QLatin1String("/.tulo-cm.factory-reset");
}

/// Default tree and written files.
inline void prepareReset(const QString& defaultPath, const QString& tree)
{
    writeFile(defaultPath + QLatin1String("/audio/volume"), "{}");
    for (const QString& name : resetNames()) {
        const bool isJournal = name.endsWith(QLatin1String("journal"));
        writeFile(tree + name, isJournal ? "tulo-journal 1" : R"({"timestamp":1})");
    }
}

inline JournalResult finishReset(const QString& defaultPath, const QString& tree)
{
    const UniqueFd directory(::open(QFile::encodeName(tree).constData(), O_RDONLY | O_DIRECTORY));
    return finishFactoryReset(directory.get(), defaultPath, tree, QString());
}

/// As a service whose disk is full does.
inline JournalResult requestAndReset(const QString& defaultPath, const QString& tree)
{
    const UniqueFd directory(::open(QFile::encodeName(tree).constData(), O_RDONLY | O_DIRECTORY));
    const JournalResult requested = requestFactoryReset(directory.get());
    return requested.status == JournalResult::Status::Done ? finishReset(defaultPath, tree)
                                                           : requested;
}

enum class Remains {
    All, ///< nothing was reset
    Some, ///< and nothing says that the rest is to go
    Nothing
};

/// What the next process that opens the tree finds once it has finished what was asked for.
inline Remains remainsIn(const QString& defaultPath, const QString& tree)
{
    if (finishReset(defaultPath, tree).status != JournalResult::Status::Done)
        return Remains::Some;
    int left = 0;
    for (const QString& name : resetNames())
        left += QFile::exists(tree + name) ? 1 : 0;
    // Of an image before; a listing would show it.
    const bool isStray = QFile::exists(tree + QLatin1String("/older"));
    if (left == 0 && !isStray && !QFile::exists(requestFile(tree)))
        return Remains::Nothing;
    return left == resetNames().size() ? Remains::All : Remains::Some;
}

} // namespace tulo
