#include "tulo-cm/commandline.h"

#include "tulo-cm/help.h"

#include "trees/misspelling.h"

#include <QCommandLineParser>

#include <algorithm>

namespace tulo {

QVector<ListedWord> busWords()
{
    return { { QStringLiteral("system"), QStringLiteral("the default") },
             { QStringLiteral("session"), QString() } };
}

QVector<ListedWord> logLevelWords()
{
    QVector<ListedWord> words;
    for (const char* level : { "trace", "debug", "info", "warn", "error", "fatal", "off" })
        words.append({ QLatin1String(level), QString() });
    return words;
}

QVector<ListedWord> colourWords()
{
    return { { QStringLiteral("auto"), QStringLiteral("the default") },
             { QStringLiteral("always"), QString() },
             { QStringLiteral("never"), QString() } };
}

const QVector<Option>& generalOptions()
{
    static const QVector<Option> options {
        general::defaultPath, general::writePath,  general::inProcess,  general::bus,
        general::host,        general::product,    general::migrations, general::plugin,
        general::language,    general::catalogues, general::json,       general::color,
        general::noPager,     general::logLevel,   general::logConfig,  general::help,
        general::version,
    };
    return options;
}

QString spelled(const Option& option)
{
    return QLatin1String("--") + QLatin1String(option.name);
}

const Command* findCommand(const QString& name)
{
    const QVector<Command>& table = commandTable();
    const auto found = std::find_if(table.cbegin(), table.cend(), [&name](const Command& command) {
        return name == QLatin1String(command.name)
            || (!name.isEmpty() && name == QLatin1String(command.alias));
    });
    return found == table.cend() ? nullptr : found;
}

Command::Needs neededBy(const Arguments& arguments)
{
    const Command& command = *arguments.command;
    const bool isAlone = command.standalone != nullptr && arguments.isSet(*command.standalone);
    return isAlone ? Command::Needs::Nothing : command.needs;
}

bool isTaken(const Command& command, bool inShell)
{
    return command.where != (inShell ? Command::Where::CommandLine : Command::Where::Shell);
}

QStringList commandNames(bool inShell)
{
    QStringList names;
    for (const Command& command : commandTable()) {
        if (isTaken(command, inShell))
            names.append(QLatin1String(command.name));
    }
    return names;
}

bool looksNegative(const QString& word)
{
    const QChar second = word.size() > 1 ? word.at(1) : QChar();
    return word.startsWith(QLatin1Char('-')) && (second.isDigit() || second == QLatin1Char('.'));
}

namespace {

// Nothing is above the top.
QString resolve(const QString& path, const QString& directory)
{
    QStringList names = directory.mid(1).split(QLatin1Char('/'));
    for (const QString& name : path.split(QLatin1Char('/'))) {
        if (name == QLatin1String(".."))
            names = names.mid(0, std::max(1, names.size() - 1));
        else if (name != QLatin1String("."))
            names.append(name);
    }
    return QLatin1Char('/') + names.join(QLatin1Char('/'));
}

} // namespace

QString completePath(QString path, const QString& directory)
{
    if (path.isEmpty())
        return path;
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    if (path.isEmpty())
        return topPath();
    if (path.startsWith(QLatin1Char('/')))
        return path;
    const bool isComplete = path.section(QLatin1Char('/'), 0, 0) == topPath().mid(1);
    return directory.isEmpty() || isComplete ? QLatin1Char('/') + path : resolve(path, directory);
}

namespace {

// ---------------------------------------------------------------------------------------------
// Words that begin with "-" and are negative numbers. A mark, which no argument of a process can
// hold, keeps the parser from taking them for options.
// ---------------------------------------------------------------------------------------------

const QChar mark(0);

QStringList marked(const QStringList& words)
{
    QStringList result;
    for (const QString& word : words)
        result.append(looksNegative(word) ? mark + word : word);
    return result;
}

QStringList unmarked(const QStringList& words)
{
    QStringList result;
    for (const QString& word : words)
        result.append(word.startsWith(mark) ? word.mid(1) : word);
    return result;
}

// ---------------------------------------------------------------------------------------------
// Parsing. One parser knows every option, so that the command is found wherever it stands.
// ---------------------------------------------------------------------------------------------

bool contains(const QVector<Option>& options, const Option& option)
{
    return std::any_of(options.cbegin(), options.cend(), [&option](const Option& known) {
        return qstrcmp(known.name, option.name) == 0;
    });
}

QStringList namesOf(const Option& option)
{
    const QString name = QLatin1String(option.name);
    return *option.letter == 0 ? QStringList(name)
                               : QStringList { name, QLatin1String(option.letter) };
}

// "Missing value after '--role'." becomes "missing value after '--role'".
QString asOurs(QString message)
{
    if (message.endsWith(QLatin1Char('.')))
        message.chop(1);
    if (!message.isEmpty())
        message[0] = message.at(0).toLower();
    return message;
}

QString errorOf(const QCommandLineParser& parser)
{
    const QStringList unknown = parser.unknownOptionNames();
    if (unknown.isEmpty())
        return asOurs(parser.errorText());
    const QString& name = unknown.first();
    return QStringLiteral("unknown option '%1%2'")
        .arg(QLatin1String(name.size() == 1 ? "-" : "--"), name);
}

QString optionNear(const QString& name)
{
    QStringList names;
    for (const Option& option : allOptions())
        names.append(QLatin1String(option.name));
    const QString found = nearest(name, names);
    return found.isEmpty() ? found : QLatin1String("--") + found;
}

// ---------------------------------------------------------------------------------------------
// What the command takes.
// ---------------------------------------------------------------------------------------------

bool isRepeated(const Argument& argument)
{
    return argument.count == Argument::Count::OneOrMore || argument.count == Argument::Count::Any;
}

int minimumOf(const QVector<Argument>& arguments)
{
    return int(std::count_if(arguments.cbegin(), arguments.cend(), [](const Argument& argument) {
        return argument.count == Argument::Count::One
            || argument.count == Argument::Count::OneOrMore;
    }));
}

bool isPath(const Argument& argument, const QString& word)
{
    return argument.kind == Argument::Kind::Path
        || (argument.kind == Argument::Kind::SettingsDirectory && word != QLatin1String("-"));
}

void completePaths(Arguments* arguments, const QString& directory)
{
    const QVector<Argument>& known = arguments->command->arguments;
    for (int i = 0; i < arguments->positional.size() && !known.isEmpty(); ++i) {
        // Only the last one can be repeated.
        const Argument& argument = known.at(std::min(i, known.size() - 1));
        QString& word = arguments->positional[i];
        if (isPath(argument, word))
            word = completePath(word, directory);
    }
}

QString validatePlace(const Command& command, bool inShell)
{
    if (isTaken(command, inShell))
        return QString();
    return (inShell ? QStringLiteral("'%1' is not a command of the shell")
                    : QStringLiteral("'%1' is a command of the shell only"))
        .arg(QLatin1String(command.name));
}

QString validateOptions(const Arguments& arguments, bool inShell)
{
    const Command& command = *arguments.command;
    for (const Option& option : allOptions()) {
        if (!arguments.isSet(option) || contains(command.options, option))
            continue;
        if (!contains(generalOptions(), option)) {
            return QStringLiteral("'%1' takes no option '%2'")
                .arg(QLatin1String(command.name), spelled(option));
        }
        if (inShell && namesOf(option) != namesOf(general::help)) {
            return QStringLiteral("'%1' is an option of the program, not of a line of the shell")
                .arg(spelled(option));
        }
    }
    return QString();
}

QString validateCount(const Arguments& arguments)
{
    const Command& command = *arguments.command;
    const QVector<Argument>& known = command.arguments;
    const int count = arguments.positional.size();
    const bool isUnlimited = !known.isEmpty() && isRepeated(known.last());
    const bool isTooMany = count > known.size() && !isUnlimited;
    if (arguments.isSet(general::help) || (!isTooMany && count >= minimumOf(known)))
        return QString();
    return QStringLiteral("%1 arguments for '%2'; usage: %3")
        .arg(QLatin1String(isTooMany ? "too many" : "missing"), QLatin1String(command.name),
             synopsis(command));
}

QString validate(const Arguments& arguments, bool inShell)
{
    QString error = validatePlace(*arguments.command, inShell);
    if (error.isEmpty())
        error = validateOptions(arguments, inShell);
    if (error.isEmpty())
        error = validateCount(arguments);
    return error;
}

ParsedLine parse(const QStringList& words, bool inShell, const QString& directory)
{
    QCommandLineParser parser;
    const QVector<Option>& options = allOptions();
    for (const Option& option : options)
        parser.addOption({ namesOf(option), QString(), QLatin1String(option.valueName) });
    ParsedLine line;
    const bool isUnderstood = parser.parse(QStringList(QString()) + marked(words));
    Arguments& arguments = line.arguments;
    for (const Option& option : options) {
        const QString name = QLatin1String(option.name);
        if (parser.isSet(name))
            arguments.set(option, unmarked(parser.values(name)));
    }
    if (!isUnderstood) {
        line.error = errorOf(parser);
        line.suggestion = optionNear(parser.unknownOptionNames().value(0));
        return line;
    }

    arguments.positional = unmarked(parser.positionalArguments());
    if (arguments.positional.isEmpty()) {
        if (!arguments.isSet(general::help) && !arguments.isSet(general::version))
            line.error = QStringLiteral("no command; commands are: %1")
                             .arg(commandNames(inShell).join(QLatin1String(", ")));
        return line;
    }
    const QString name = arguments.positional.takeFirst();
    arguments.command = findCommand(name);
    if (arguments.command == nullptr) {
        line.error = QStringLiteral("unknown command '%1'; commands are: %2")
                         .arg(name, commandNames(inShell).join(QLatin1String(", ")));
        line.suggestion = nearest(name, commandNames(inShell));
        return line;
    }
    completePaths(&arguments, directory);
    line.error = validate(arguments, inShell);
    return line;
}

} // namespace

const QVector<Option>& allOptions()
{
    static const QVector<Option> options = [] {
        QVector<Option> all = generalOptions();
        for (const Command& command : commandTable()) {
            for (const Option& option : command.options) {
                if (!contains(all, option))
                    all.append(option);
            }
        }
        return all;
    }();
    return options;
}

ParsedLine parseCommandLine(const QStringList& words)
{
    return parse(words, false, QString());
}

ParsedLine parseShellLine(const QStringList& words, const QString& directory)
{
    return parse(words, true, directory);
}

std::optional<int> numberOption(const Context& context, const Arguments& arguments,
                                const Option& option, int fallback)
{
    if (!arguments.isSet(option))
        return fallback;
    bool isNumber = false;
    const int number = arguments.value(option).toInt(&isNumber);
    if (isNumber)
        return number;
    context.output.reportUsage(QStringLiteral("'%1' needs a whole number, not '%2'")
                                   .arg(spelled(option), arguments.value(option)));
    return std::nullopt;
}

} // namespace tulo
