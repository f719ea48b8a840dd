#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace tulo {

/// What the service was started with.
struct DaemonOptions
{
    QString defaultPath;
    QString writePath;
    QString product;
    QString migrations; ///< empty: beside the default tree
    QString language;
    QStringList catalogues;
    QString bus;
    bool waitsForMount = false; ///< of the writable tree's partition
    int changesPerMinute = 0; ///< of one user; zero: any number
    QString plugin;
    QString logLevel; ///< null: the default
    QString logConfiguration; ///< null: none
    /// To whom the writable tree is to belong, instead of serving it; empty: serve.
    QString adoptingUser;
};

/// Reads the words of the command line, the program's name first. None when they are not valid;
/// `reason` says why. Prints help or version and ends the process when these are asked for.
std::optional<DaemonOptions> parseOptions(const QStringList& words, QString* reason);

} // namespace tulo
