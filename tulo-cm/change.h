#pragma once

#include "tulo-cm/command.h"

#include <tulo/settings.h>

#include <QVariant>

namespace tulo {

// What the commands that change a setting share.

inline constexpr Option stringOption { "string", "", "take VALUE as a text as it is" };
inline constexpr Option flushOption { "flush", "", "wait until the change is on disk" };

// Each prints an error and returns its exit code, or sets the last argument and returns Done.

/// The roles that tell what a value has to be. A setting that does not exist yet takes them from
/// its directory; none are set for a path at which the change itself will fail.
int readSetting(Context& context, const QString& path, QVariantMap* roles);
/// The value that VALUE stands for in the setting, with its kind.
int givenValue(Context& context, const Arguments& arguments, const QString& path,
               const QString& word, QVariant* value);
/// Reads an object for setRoles().
int givenRoles(Context& context, const QString& json, QVariantMap* roles);

/// Waits for the change, prints what became of it and flushes when the options say so.
int printChange(Context& context, const Arguments& arguments, const QString& path,
                const Reply<Change>& reply);

} // namespace tulo
