#pragma once

#include "session.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

namespace tulo {

struct Context;
class Arguments;

/// The path at the top, which all others begin with.
inline const QString topPath = QStringLiteral("/settings");

/// One option: "--name" or "--name VALUE".
struct Option
{
    QString name;
    QString valueName; ///< empty for an option without a value
    QString description;
    QString letter {}; ///< for "-h"; empty for most
};

/// One command as it is parsed, described and run.
struct Command
{
    /// Where it can be given.
    enum class Place {
        Anywhere,
        ServiceOrShell, ///< needs a process that outlives the command
        Service, ///< only on the service
        Shell, ///< only as a line of the shell
        CommandLine ///< only as the program's command
    };
    /// What it needs.
    enum class Needs {
        Nothing,
        Files, ///< the directories
        Session, ///< the settings, to read them
        Changes, ///< the settings, to change them
        Bus ///< a bus to offer the directories on
    };

    QString name;
    QString alias; ///< another name; empty for most
    QString arguments;
    QString summary;
    QString example;
    QStringList options; ///< names of the options it takes beside the general ones
    int minimumArguments = 0;
    int maximumArguments = 0; ///< -1: any number
    int paths = 0; ///< how many of them, from the first, are paths; -1: all
    Place place = Place::Anywhere;
    Needs needs = Needs::Session;
    /// Null for `serve`, which is started before there is anything to work with.
    int (*run)(Context& context, const Arguments& arguments) = nullptr;
};

/// A parsed command line, or line of the shell.
class Arguments
{
public:
    const Command* command = nullptr; ///< null when only --help or --version was asked for
    /// What follows the command. Paths among it begin with "/" and do not end with one; "/" by
    /// itself has become the path at the top.
    QStringList positional;

    bool isSet(const QString& option) const { return m_options.contains(option); }
    /// The last value given, null when the option is not set.
    QString value(const QString& option) const
    {
        return values(option).value(values(option).size() - 1);
    }
    /// All values given, in order.
    QStringList values(const QString& option) const { return m_options.value(option); }
    void set(const QString& option, const QStringList& values) { m_options.insert(option, values); }

private:
    QHash<QString, QStringList> m_options;
};

/// All commands, in the order in which help lists them.
const QVector<Command>& commands();
/// Null when no command has that name or alias.
const Command* findCommand(const QString& name);

/// Parses the words of the program's command line, without the program's name.
Arguments parseCommandLine(const QStringList& words, Failure* failure);
/// Parses the words of a line of the shell, which takes no general options.
Arguments parseShellLine(const QStringList& words, Failure* failure);
/// The index that --first and the like name; `fallback` when the option is not set.
int numberOption(const Arguments& arguments, const QString& option, int fallback, Failure* failure);

Failure usageFailure(const QString& message);

/// The commands in one line each, which fits on a screen; of the shell those that it takes.
QString overview(bool inShell);
/// Everything about the program: commands with examples, options, exit codes.
QString generalHelp();
/// The help for one command.
QString commandHelp(const Command& command);
/// The help as an object for programs: for all commands, and for one.
QVariantHash helpObject(bool inShell);
QVariantHash helpObject(const Command& command);

} // namespace tulo
