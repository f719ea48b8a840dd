#pragma once

#include <QByteArray>
#include <QLatin1String>
#include <QString>

// Tells one image from another: by all its files, or at once by a stamp that was put into the
// default tree when the image was built. Digests are SHA-256, in hexadecimal.

namespace tulo {

/// Of the names and contents of all files of a default tree that can be read as settings or
/// templates, of all products. Follows links as the worker does. Empty, and `error`, when a file
/// cannot be read or is larger than 1 MiB.
[[nodiscard]] QByteArray treeDigest(const QString& defaultPath, QString* error);

/// The same of a default tree together with the migration rules beside it (see
/// migrationsBeside()): what a stamp holds.
[[nodiscard]] QByteArray imageDigest(const QString& defaultPath, QString* error);

/// The name of the file that holds the stamp, directly in the default tree. No listing shows it.
inline QLatin1String stampName()
{
    return QLatin1String(".tulo-cm.stamp");
}
QString stampFile(const QString& defaultPath);

/// What the stamp of the default tree says, whether or not it is true. Empty without one.
[[nodiscard]] QByteArray readStamp(const QString& defaultPath);

/// Tells whether the default tree has a stamp and is no longer the tree that was stamped, as far as
/// its files can be read.
bool isStampStale(const QString& defaultPath);

/// Stamps the default tree. Empty, or why it could not.
[[nodiscard]] QString writeStamp(const QString& defaultPath);

} // namespace tulo
