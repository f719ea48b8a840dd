#pragma once

#include <QString>

namespace tulo {

/// What became of a tree that is to belong to a user.
struct [[nodiscard]] AdoptionResult
{
    enum class Status {
        Done, ///< it belongs to the user, or there is no tree
        Foreign, ///< nothing tells that its owner is that user under another number; left alone
        Failed ///< the next time goes on
    };

    Status status = Status::Done;
    QString message; ///< one line; empty when nothing was done
};

/// Gives a tree back to the user `user`, to whom this image gave another number than the one
/// before: the data partition keeps the old one. For root alone, before anything else opens the
/// tree.
///
/// That the old number was the user's is what the file ".tulo-cm.owner" in the tree tells, which
/// belongs to root. It is written here whenever the tree belongs to the user, so a tree of another
/// user, such as another framework's, never has one that fits, and stays as it is.
///
/// Changed are directories, symbolic links themselves, and regular files with one name, if their
/// owner is an old number of the user; and of those and of the user's the group, if it is an old
/// one. Everything else in the tree stays, as does what lies deeper than any setting. No link is
/// followed, no other file system or mount entered. The tree's own directory comes last, when the
/// rest is on the disk: what was interrupted is done again, also by an image with the old number.
AdoptionResult adoptTree(const QString& writePath, const QString& user);

} // namespace tulo
