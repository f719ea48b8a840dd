#pragma once

#include "trees/dump.h"
#include "tulo-cm/command.h"

#include <QString>
#include <QStringList>

namespace tulo {

// What the commands that carry settings from one device to another share.

inline constexpr Option secretsOption { "secrets", "",
                                        "with the values of encrypted settings, readable" };

/// The settings at and below a path that were changed.
struct Changed
{
    Dump dump; ///< complete but for the image that it comes from
    QStringList leftOut; ///< paths of encrypted ones, sorted, that are not in `dump`
};

/// Reads each setting at and below `path` as it is at that moment. Prints an error and returns its
/// exit code, or sets `changed` and returns Done.
int readChanged(Context& context, const QString& path, bool withSecrets, Changed* changed);

} // namespace tulo
