#pragma once

#include "tulo-cm/command.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace tulo {

QVector<ListedWord> busWords();
QVector<ListedWord> logLevelWords();
QVector<ListedWord> colourWords();

/// The options of the program, beside those of the commands.
namespace general {

inline constexpr Option defaultPath { "default-path", "DIR",
                                      "the tree with the defaults; needs --write-path", "",
                                      WordKind::Tree };
inline constexpr Option writePath { "write-path", "DIR", "the tree with the changed values", "",
                                    WordKind::Directory };
inline constexpr Option inProcess { "in-process", "",
                                    "serve the built-in directories in this process" };
inline constexpr Option bus {
    "bus", "BUS", "system (the default), session or an address", "", WordKind::Listed, busWords
};
inline constexpr Option host { "host", "USER@HOST", "the service of another device, through ssh" };
inline constexpr Option product { "product", "POSTFIX", "use the defaults of this product variant",
                                  "", WordKind::Product };
inline constexpr Option migrations { "migrations", "DIR",
                                     "rules for written values, instead of those beside the "
                                     "default tree",
                                     "", WordKind::Directory };
inline constexpr Option plugin { "plugin", "FILE",
                                 "the settings worker, instead of the installed one", "",
                                 WordKind::File };
inline constexpr Option language { "language", "LOCALE", "show texts in this language, such as de",
                                   "", WordKind::Language };
inline constexpr Option catalogues {
    "catalogues", "DIR", "where the language's catalogues are", "", WordKind::Directory,
    nullptr,      true
};
inline constexpr Option json { "json", "", "print one JSON object a line" };
inline constexpr Option color {
    "color", "WHEN",           "colours: auto (the default: on a terminal), always or never",
    "",      WordKind::Listed, colourWords
};
inline constexpr Option noPager { "no-pager", "", "show long output without a pager" };
inline constexpr Option logLevel {
    "log-level",
    "LEVEL",
    "show log records from trace, debug, info, warn (the default), error, fatal or off",
    "",
    WordKind::Listed,
    logLevelWords
};
inline constexpr Option logConfig { "log-config", "FILE",
                                    "configure logging with a log4cplus property file", "",
                                    WordKind::File };
inline constexpr Option help { "help", "", "print an overview, or the help of the command", "h" };
inline constexpr Option version { "version", "", "print the version" };

} // namespace general

/// All of them, in the order in which help lists them.
const QVector<Option>& generalOptions();
/// The same, and those of all commands.
const QVector<Option>& allOptions();

/// "--name".
QString spelled(const Option& option);

/// Tells whether a word that begins with "-" is a number and not an option.
bool looksNegative(const QString& word);

/// A path as people write it, with "/" at the end or without it at the beginning, in full. Without
/// a `directory` the missing "/" is put in front. With one, the path is relative to it and may hold
/// "." and ".."; only one that begins with "settings", as "settings/audio" does, stands for itself.
QString completePath(QString path, const QString& directory);

/// What parsing comes to.
struct ParsedLine
{
    Arguments arguments;
    QString error; ///< what is wrong with the words; empty when nothing is
    QString suggestion; ///< what may have been meant in place of a wrong word
};

/// Parses the words of the program's command line, without the program's name.
ParsedLine parseCommandLine(const QStringList& words);
/// Parses the words of a line of the shell, which takes no general options. Its paths are relative
/// to `directory`, which may be empty: see completePath().
ParsedLine parseShellLine(const QStringList& words, const QString& directory);

/// The whole number that an option names; `fallback` when it is not set. Prints an error and
/// returns none when it is not a number.
std::optional<int> numberOption(const Context& context, const Arguments& arguments,
                                const Option& option, int fallback);

} // namespace tulo
