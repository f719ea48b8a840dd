#pragma once

#include "tulo-cm/output.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

namespace tulo {

class Settings;
class Watches;
struct Place;

/// What an argument, or the value of an option, can be. Completion is made from it.
enum class WordKind {
    Other, ///< nothing that could be listed
    Path, ///< of a setting or directory
    SettingsDirectory, ///< the path of one, or "-" for the one before
    PathOrTree, ///< a directory of files where the command's standalone option is set
    Role, ///< of the setting that the first argument names
    Value, ///< for the setting that the first argument names
    Verb, ///< of an operation
    Operand, ///< for the verb before it
    Command, ///< the name of one
    Product, ///< a postfix of the default tree
    Language, ///< of the catalogues
    Tree, ///< a default tree, as the option names one
    Directory,
    File,
    Listed, ///< one of the words listed beside it
    ListedMany ///< the same, or several with commas between them
};

/// One of the words that something can be.
struct ListedWord
{
    QString word;
    QString description; ///< in one line
};
using WordList = QVector<ListedWord> (*)();

/// One option: "--name" or "--name VALUE".
struct Option
{
    const char* name;
    const char* valueName; ///< empty for an option without a value
    const char* description;
    const char* letter = ""; ///< for "-h"; empty for most
    WordKind kind = WordKind::Other; ///< of the value
    WordList words = nullptr; ///< for the kinds that list them
    bool isRepeatable = false;
};

/// One argument behind the name of a command.
struct Argument
{
    using Kind = WordKind;
    enum class Count { One, Optional, OneOrMore, Any };

    const char* name;
    Count count = Count::One;
    Kind kind = Kind::Other;
    WordList words = nullptr; ///< for the kinds that list them
};

class Arguments;
struct Context;

/// One command: everything that is said about it, and what it does. Parsing and help are made
/// from it. CONTRIBUTING tells how to add one.
struct Command
{
    /// Where it can be given.
    enum class Where {
        Anywhere,
        ServiceOrShell, ///< needs a process that outlives the command
        Shell, ///< only as a line of the shell
        CommandLine ///< only as the program's command
    };
    /// What it works with.
    enum class Needs {
        Nothing,
        Trees, ///< the directories
        OwnedTrees, ///< the directories, to change files in them
        Settings, ///< the settings, to read them
        Changes, ///< the settings, to change them
        ChangesOrSettings ///< the same where that is possible, else to read them
    };
    /// How long it runs.
    enum class Runs { ToItsEnd, UntilInterrupted };

    const char* name;
    const char* alias; ///< another name; empty for most
    QVector<Argument> arguments;
    QVector<Option> options; ///< beside the general ones
    const char* summary; ///< sentences; the first up to its first details stands in the overview
    const char* example;
    Where where;
    Needs needs;
    Runs runs;
    /// Prints results and errors and returns an exit code: that of the first failure where there
    /// are several.
    int (*run)(Context& context, const Arguments& arguments);
    /// With this option it needs nothing. Null for most.
    const Option* standalone = nullptr;
};

/// A parsed command line, or line of the shell.
class Arguments
{
public:
    const Command* command = nullptr; ///< null when only --help or --version was asked for
    /// What follows the command. Paths among it begin with "/" and do not end with one; "/" by
    /// itself has become the path at the top, and a relative one is complete.
    QStringList positional;

    bool isSet(const Option& option) const { return m_values.contains(key(option)); }
    /// The last value given, null when the option is not set.
    QString value(const Option& option) const
    {
        const QStringList all = values(option);
        return all.isEmpty() ? QString() : all.last();
    }
    /// All values given, in order.
    QStringList values(const Option& option) const { return m_values.value(key(option)); }
    void set(const Option& option, const QStringList& values)
    {
        m_values.insert(key(option), values);
    }

private:
    static QLatin1String key(const Option& option) { return QLatin1String(option.name); }

    QHash<QString, QStringList> m_values;
};

/// What a command works with. The same for all commands of one process.
struct Context
{
    Output& output;
    const Place& place;
    Settings* settings = nullptr; ///< null for a command that needs none
    Watches* watches = nullptr; ///< null for a command that needs no settings
    bool inShell = false;
    bool quit = false; ///< the shell ends after this line
    QString directory = {}; ///< that paths of the shell are relative to; empty: see completePath()
    QString previousDirectory = {}; ///< empty as long as there is none

    /// The path of a command that none is given to.
    QString start() const;
};

/// All commands, in the order in which help lists them: see CMakeLists.txt.
const QVector<Command>& commandTable();
/// What the command needs with these arguments.
Command::Needs neededBy(const Arguments& arguments);
/// Null when no command has that name or alias.
const Command* findCommand(const QString& name);
/// Tells whether the shell, or the command line, takes the command.
bool isTaken(const Command& command, bool inShell);
/// The names of all that it takes.
QStringList commandNames(bool inShell);

/// The path at the top, which all others begin with.
inline QString topPath()
{
    return QStringLiteral("/settings");
}

inline QString Context::start() const
{
    return directory.isEmpty() ? topPath() : directory;
}

} // namespace tulo
