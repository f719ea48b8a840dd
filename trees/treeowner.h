#pragma once

#include <QString>

#include <sys/types.h>

namespace tulo {

/// The name of the user, or the number of a user without a name.
QString userName(uid_t id);

/// When root runs this and `writePath` belongs to another user, makes the process that user for
/// good, with the user's groups: whatever root would write in that tree, its owner could not
/// use. Otherwise changes nothing. To be called before anything is opened.
///
/// Returns an empty text, or one line that says why the process still is root.
[[nodiscard]] QString becomeOwner(const QString& writePath);

/// Gives up, for good and for this thread, every right of root but those to change owners and
/// modes and to reach every file. Returns an empty text, or one line that says why they
/// are still there.
[[nodiscard]] QString keepRightToChangeOwners();

} // namespace tulo
