#pragma once

#include <QFileInfo>
#include <QString>
#include <QtGlobal>

/// Makes the temporary trees of this program in memory from now on, where the machine allows it:
/// for tests that change files so often that they would wait for the disk, and for which it does
/// not matter what is on it.
inline void keepTreesInMemory()
{
    if (QFileInfo(QStringLiteral("/dev/shm")).isWritable())
        qputenv("TMPDIR", "/dev/shm");
}
