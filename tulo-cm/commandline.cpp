#include "commandline.h"

#include "commands.h"

#include "api/core/model/cmoperation.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <algorithm>

namespace tulo {

namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

// ---------------------------------------------------------------------------------------------
// What there is: the options and the commands.
// ---------------------------------------------------------------------------------------------

const QVector<Option>& generalOptions()
{
    static const QVector<Option> options {
        { text("default-path"), text("DIR"),
          text("the tree with the defaults; needs --write-path") },
        { text("write-path"), text("DIR"), text("the tree with the changed values") },
        { text("in-process"), QString(), text("serve the built-in directories in this process") },
        { text("bus"), text("BUS"), text("system (the default), session or an address") },
        { text("product"), text("POSTFIX"), text("use the defaults of this product variant") },
        { text("plugin"), text("FILE"), text("the settings worker, instead of the installed one") },
        { text("language"), text("LOCALE"), text("show texts in this language, such as de") },
        { text("catalogues"), text("DIR"), text("where the language's catalogues are") },
        { text("json"), QString(), text("print one JSON object a line") },
        { text("log-level"), text("LEVEL"),
          text(
              "show log records from trace, debug, info, warn (the default), error, fatal or off") },
        { text("log-config"), text("FILE"),
          text("configure logging with a log4cplus property file") },
        { text("help"), QString(), text("print an overview, or the help of the command"),
          text("h") },
        { text("version"), QString(), text("print the version") },
    };
    return options;
}

const QVector<Option>& commandOptions()
{
    static const QVector<Option> options {
        { text("role"), text("ROLE"), text("a role to print; can be given more than once") },
        { text("all"), QString(), text("all known roles that the node has") },
        { text("first"), text("N"), text("index of the first row, from 0") },
        { text("last"), text("N"), text("index of the last row, inclusive") },
        { text("string"), QString(), text("take VALUE as a text as it is") },
        { text("roles"), text("JSON"), text("send these roles, an object") },
        { text("default"), QString(), text("go back to the default value") },
        { text("flush"), QString(), text("wait until the change is on disk") },
        { text("count"), text("N"), text("stop after N events") },
        { text("initial"), QString(), text("begin with what is there now") },
    };
    return options;
}

QVector<Command> makeCommands()
{
    using Place = Command::Place;
    using Needs = Command::Needs;
    QVector<Command> list;

    Command get;
    get.name = text("get");
    get.arguments = text("PATH...");
    get.summary = text("Prints roles of settings: the value when no role is named.");
    get.example = text("get /settings/audio/volume --role value --role title");
    get.options = QStringList { text("role"), text("all") };
    get.minimumArguments = 1;
    get.maximumArguments = -1;
    get.paths = -1;
    get.run = runGet;
    list.append(get);

    Command ls;
    ls.name = text("ls");
    ls.arguments = text("[PATH]");
    ls.summary = text(
        "Prints the rows of a directory, with the value when no role is named; those of /settings\n"
        "when no path is given.");
    ls.example = text("ls /settings/audio --first 0 --last 9");
    ls.options = QStringList { text("first"), text("last"), text("role") };
    ls.maximumArguments = 1;
    ls.paths = 1;
    ls.run = runLs;
    list.append(ls);

    Command tree;
    tree.name = text("tree");
    tree.arguments = text("[PATH]");
    tree.summary = text("Prints everything at and below a path, /settings when none is given.");
    tree.example = text("tree /settings/audio");
    tree.maximumArguments = 1;
    tree.paths = 1;
    tree.run = runTree;
    list.append(tree);

    Command set;
    set.name = text("set");
    set.arguments = text("PATH [VALUE]");
    set.summary = text(
        "Changes a setting and prints the value that is stored now. VALUE is read as JSON, else\n"
        "as a text; \"-\" reads it from standard input, except in the shell. In place of VALUE:\n"
        "--roles or --default.");
    set.example = text("set /settings/audio/volume 40");
    set.options = QStringList { text("string"), text("roles"), text("default"), text("flush") };
    set.minimumArguments = 1;
    set.maximumArguments = 2;
    set.needs = Needs::Changes;
    set.paths = 1;
    set.run = runSet;
    list.append(set);

    Command op;
    op.name = text("op");
    op.arguments = text("PATH VERB [VALUE]");
    op.summary =
        text("Applies an operation and prints the value that is stored now. VERB is one of\n")
        + CMOperation::verbs().join(text(", ")) + QLatin1Char('.');
    op.example = text("op /settings/audio/volume add -5");
    op.options = QStringList { text("string"), text("flush") };
    op.minimumArguments = 2;
    op.maximumArguments = 3;
    op.needs = Needs::Changes;
    op.paths = 1;
    op.run = runOp;
    list.append(op);

    Command watch;
    watch.name = text("watch");
    watch.arguments = text("PATH...");
    watch.summary =
        text("Prints the changes of settings and directories, until interrupted; in the shell\n"
             "while it goes on.");
    watch.example = text("watch /settings/audio/volume --count 1");
    watch.options = QStringList { text("count"), text("initial") };
    watch.minimumArguments = 1;
    watch.maximumArguments = -1;
    watch.place = Place::ServiceOrShell;
    watch.paths = -1;
    watch.run = runWatch;
    list.append(watch);

    Command unwatch;
    unwatch.name = text("unwatch");
    unwatch.arguments = text("[PATH]...");
    unwatch.summary = text("Ends watching these paths, or all.");
    unwatch.example = text("unwatch /settings/audio/volume");
    unwatch.maximumArguments = -1;
    unwatch.place = Place::Shell;
    unwatch.paths = -1;
    unwatch.run = runUnwatch;
    list.append(unwatch);

    Command flush;
    flush.name = text("flush");
    flush.summary = text("Writes all pending changes and syncs the file systems.");
    flush.example = text("flush");
    flush.run = runFlush;
    list.append(flush);

    Command dropCache;
    dropCache.name = text("drop-cache");
    dropCache.summary = text("Discards cached values; settings are read from their files again.");
    dropCache.example = text("drop-cache");
    dropCache.place = Place::ServiceOrShell;
    dropCache.run = runDropCache;
    list.append(dropCache);

    Command check;
    check.name = text("check");
    check.summary = text(
        "Prints what is wrong in the two trees. In the default tree: files that do not parse or\n"
        "are not an object, values without a kind or outside their constraints, names that no\n"
        "listing shows. In the writable tree: files that do not parse or are not an object, links,\n"
        "temporary files of interrupted writes (harmless). In both: special files, files of more\n"
        "than 1 MiB, what is too deep, and what cannot be read or written: by this user, or, run\n"
        "by root, by the owner of the writable tree as far as owner, group and mode tell.");
    check.example = text("check");
    check.needs = Needs::Files;
    check.run = runCheck;
    list.append(check);

    Command serve;
    serve.name = text("serve");
    serve.summary = text(
        "Serves the directories on the bus, the built-in ones when none are named, until it is\n"
        "interrupted; then flushes. SIGHUP reloads the log configuration.");
    serve.example = text("--bus session serve");
    serve.place = Place::CommandLine;
    serve.needs = Needs::Bus;
    list.append(serve);

    Command status;
    status.name = text("status");
    status.summary = text("Shows the status of the service.");
    status.example = text("status");
    status.place = Place::Service;
    status.run = runStatus;
    list.append(status);

    Command shell;
    shell.name = text("shell");
    shell.summary = text("Runs commands from standard input, one a line, in one process.");
    shell.example = text("shell");
    shell.place = Place::CommandLine;
    shell.needs = Needs::Changes;
    shell.run = runShell;
    list.append(shell);

    Command wait;
    wait.name = text("wait");
    wait.arguments = text("MS");
    wait.summary =
        text("Waits this many milliseconds; meanwhile prints events and writes pending changes.");
    wait.example = text("wait 1500");
    wait.minimumArguments = 1;
    wait.maximumArguments = 1;
    wait.place = Place::Shell;
    wait.run = runWait;
    list.append(wait);

    Command help;
    help.name = text("help");
    help.arguments = text("[COMMAND]");
    help.summary = text("Prints what the commands do.");
    help.example = text("help set");
    help.maximumArguments = 1;
    help.needs = Needs::Nothing;
    help.run = runHelp;
    list.append(help);

    Command quit;
    quit.name = text("quit");
    quit.alias = text("exit");
    quit.summary = text("Ends the shell, like 'exit' and the end of standard input.");
    quit.example = text("quit");
    quit.place = Place::Shell;
    quit.run = runQuit;
    list.append(quit);
    return list;
}

// ---------------------------------------------------------------------------------------------
// Parsing. One parser knows every option, so that the command is found wherever it stands.
// ---------------------------------------------------------------------------------------------

// Cannot occur in an argument of a process, and does not begin an option.
const QChar guard(0);

bool looksNegative(const QString& word)
{
    const QChar second = word.size() > 1 ? word.at(1) : QChar();
    return word.startsWith(QLatin1Char('-')) && (second.isDigit() || second == QLatin1Char('.'));
}

QStringList guarded(const QStringList& words)
{
    QStringList result;
    for (const QString& word : words)
        result.append(looksNegative(word) ? guard + word : word);
    return result;
}

QStringList unguarded(const QStringList& words)
{
    QStringList result;
    for (const QString& word : words)
        result.append(word.startsWith(guard) ? word.mid(1) : word);
    return result;
}

// Qt's message in our form: "Missing value after '--role'." becomes "missing value after '--role'".
QString ourForm(QString message)
{
    if (message.endsWith(QLatin1Char('.')))
        message.chop(1);
    if (!message.isEmpty())
        message[0] = message.at(0).toLower();
    return message;
}

// As people write paths: with "/" at the end, without it at the beginning.
QString completed(QString path)
{
    if (path.isEmpty())
        return path;
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    if (path.isEmpty())
        return topPath;
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

QString purpose()
{
    return text("Reads, changes and watches the settings of a device: with --default-path and\n"
                "--write-path those of two directories, with --in-process those of the built-in\n"
                "directories, otherwise those of the service on the bus.\n");
}

QString synopsis(const Command& command)
{
    QString line = command.name;
    if (!command.arguments.isEmpty())
        line += QLatin1Char(' ') + command.arguments;
    for (const Option& option : commandOptions()) {
        if (!command.options.contains(option.name))
            continue;
        line += text(" [--") + option.name;
        if (!option.valueName.isEmpty())
            line += QLatin1Char(' ') + option.valueName;
        line += QLatin1Char(']');
    }
    return line;
}

bool isListed(const Command& command, bool inShell)
{
    return command.place != (inShell ? Command::Place::CommandLine : Command::Place::Shell);
}

QString namesOfCommands(bool inShell)
{
    QStringList names;
    for (const Command& command : commands()) {
        if (isListed(command, inShell))
            names.append(command.name);
    }
    return names.join(text(", "));
}

Failure check(const Arguments& arguments, bool inShell)
{
    const Command& command = *arguments.command;
    if (inShell && command.place == Command::Place::CommandLine)
        return usageFailure(text("'%1' is not a command of the shell").arg(command.name));
    if (!inShell && command.place == Command::Place::Shell)
        return usageFailure(text("'%1' is a command of the shell only").arg(command.name));
    for (const Option& option : commandOptions()) {
        if (arguments.isSet(option.name) && !command.options.contains(option.name)) {
            return usageFailure(text("'%1' takes no option '--%2'").arg(command.name, option.name));
        }
    }
    for (const Option& option : generalOptions()) {
        if (inShell && option.name != text("help") && arguments.isSet(option.name)) {
            return usageFailure(
                text("'--%1' is an option of the program, not of a line of the shell")
                    .arg(option.name));
        }
    }
    const int count = arguments.positional.size();
    const bool tooMany = command.maximumArguments >= 0 && count > command.maximumArguments;
    if (!arguments.isSet(text("help")) && (count < command.minimumArguments || tooMany)) {
        return usageFailure(text("%1 arguments for '%2'; usage: %3")
                                .arg(tooMany ? text("too many") : text("missing"), command.name,
                                     synopsis(command)));
    }
    return {};
}

QStringList namesOf(const Option& option)
{
    return option.letter.isEmpty() ? QStringList(option.name)
                                   : QStringList { option.name, option.letter };
}

Arguments parse(const QStringList& words, bool inShell, Failure* failure)
{
    QCommandLineParser parser;
    QVector<Option> all = generalOptions();
    all += commandOptions();
    for (const Option& option : qAsConst(all))
        parser.addOption({ namesOf(option), option.description, option.valueName });

    Arguments arguments;
    const bool parsed = parser.parse(QStringList(QString()) + guarded(words));
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty()) {
        const QString& name = unknown.first();
        *failure = usageFailure(
            text("unknown option '%1%2'").arg(name.size() == 1 ? text("-") : text("--"), name));
        return arguments;
    }
    if (!parsed) {
        *failure = usageFailure(ourForm(parser.errorText()));
        return arguments;
    }
    for (const Option& option : qAsConst(all)) {
        if (parser.isSet(option.name))
            arguments.set(option.name, unguarded(parser.values(option.name)));
    }

    arguments.positional = unguarded(parser.positionalArguments());
    if (arguments.positional.isEmpty()) {
        if (!arguments.isSet(text("help")) && !arguments.isSet(text("version")))
            *failure =
                usageFailure(text("no command; commands are: %1").arg(namesOfCommands(inShell)));
        return arguments;
    }
    const QString name = arguments.positional.takeFirst();
    arguments.command = findCommand(name);
    if (arguments.command == nullptr) {
        *failure = usageFailure(
            text("unknown command '%1'; commands are: %2").arg(name, namesOfCommands(inShell)));
        return arguments;
    }
    const int paths = arguments.command->paths;
    for (int i = 0; i < arguments.positional.size() && (paths < 0 || i < paths); ++i)
        arguments.positional[i] = completed(arguments.positional.at(i));
    *failure = check(arguments, inShell);
    return arguments;
}

QString describe(const QVector<Option>& options)
{
    int width = 0;
    const auto form = [](const Option& option) {
        return text("  --") + option.name
            + (option.letter.isEmpty() ? QString() : text(", -") + option.letter)
            + (option.valueName.isEmpty() ? QString() : QLatin1Char(' ') + option.valueName);
    };
    for (const Option& option : options)
        width = std::max(width, form(option).size());
    QString result;
    for (const Option& option : options)
        result += form(option).leftJustified(width + 2) + option.description + QLatin1Char('\n');
    return result;
}

QVariantList describedOptions(const QVector<Option>& options)
{
    QVariantList result;
    for (const Option& option : options) {
        result.append(QVariantHash { { text("name"), option.name },
                                     { text("value"), option.valueName },
                                     { text("description"), option.description } });
    }
    return result;
}

QVector<Option> optionsOf(const Command& command)
{
    QVector<Option> result;
    for (const Option& option : commandOptions()) {
        if (command.options.contains(option.name))
            result.append(option);
    }
    return result;
}

// The summary up to its first details.
QString shortSummary(const Command& command)
{
    static const QRegularExpression details(text("[.,:;\\n]"));
    return command.summary.section(details, 0, 0);
}

QString exampleOf(const Command& command)
{
    return command.place == Command::Place::Shell ? command.example
                                                  : text("tulo-cm ") + command.example;
}

} // namespace

const QVector<Command>& commands()
{
    static const QVector<Command> list = makeCommands();
    return list;
}

const Command* findCommand(const QString& name)
{
    const auto found =
        std::find_if(commands().cbegin(), commands().cend(), [&name](const Command& command) {
            return command.name == name || (!name.isEmpty() && command.alias == name);
        });
    return found == commands().cend() ? nullptr : found;
}

Arguments parseCommandLine(const QStringList& words, Failure* failure)
{
    return parse(words, false, failure);
}

Arguments parseShellLine(const QStringList& words, Failure* failure)
{
    return parse(words, true, failure);
}

int numberOption(const Arguments& arguments, const QString& option, int fallback, Failure* failure)
{
    if (!arguments.isSet(option))
        return fallback;
    bool isNumber = false;
    const int number = arguments.value(option).toInt(&isNumber);
    if (!isNumber) {
        *failure = usageFailure(
            text("'--%1' needs a whole number, not '%2'").arg(option, arguments.value(option)));
    }
    return number;
}

Failure usageFailure(const QString& message)
{
    return { Usage, QStringLiteral("Usage"), message, QString() };
}

QString overview(bool inShell)
{
    QString result;
    if (!inShell) {
        result +=
            text("Usage: tulo-cm [OPTION]... COMMAND ...\n\n") + purpose() + QLatin1Char('\n');
    }
    result += text("Commands:\n");
    constexpr int nameWidth = 12;
    for (const Command& command : commands()) {
        if (isListed(command, inShell)) {
            result += text("  ") + command.name.leftJustified(nameWidth) + shortSummary(command)
                + QLatin1Char('\n');
        }
    }
    if (inShell) {
        return result
            + text("\n'help COMMAND' explains one. Words are separated by blanks; quote with\n"
                   "'...', \"...\" or \\. A line that begins with # is a comment.\n");
    }
    return result
        + text("\n'tulo-cm help COMMAND' explains one, 'tulo-cm help' all of them with examples,\n"
               "the options and the exit codes.\n");
}

QString generalHelp()
{
    QString result = text("Usage: tulo-cm [OPTION]... COMMAND ...\n\n") + purpose()
        + text("\nCommands, each with an example:\n");
    for (const Command& command : commands()) {
        if (!isListed(command, false))
            continue;
        result += text("  ") + synopsis(command) + QLatin1Char('\n');
        result += text("      ")
            + QString(command.summary).replace(QLatin1Char('\n'), text("\n      "))
            + QLatin1Char('\n');
        result += text("      ") + exampleOf(command) + QLatin1Char('\n');
    }
    result += text("\nOptions:\n") + describe(generalOptions());
    result +=
        text("\nExit codes:\n"
             "  0  done\n"
             "  1  another error of the worker\n"
             "  2  usage\n"
             "  3  no such path\n"
             "  4  refused or rejected: the stored value stays as it was\n"
             "  5  stored, but adjusted by the setting's constraints\n"
             "  6  accepted, but not safely on disk\n"
             "  7  no service, no plug-in, the writable tree is in use by another process, or\n"
             "     this command needs the service\n"
             "  8  findings of a check\n");
    return result;
}

QString commandHelp(const Command& command)
{
    const bool inShell = command.place == Command::Place::Shell;
    QString result = text("Usage: ") + (inShell ? QString() : text("tulo-cm [OPTION]... "))
        + synopsis(command) + text("\n\n") + command.summary + QLatin1Char('\n');
    const QVector<Option> options = optionsOf(command);
    if (!options.isEmpty())
        result += text("\nOptions:\n") + describe(options);
    return result + text("\nExample:\n  ") + exampleOf(command) + QLatin1Char('\n');
}

QVariantHash helpObject(bool inShell)
{
    QVariantList list;
    for (const Command& command : commands()) {
        if (isListed(command, inShell))
            list.append(helpObject(command));
    }
    QVariantHash result { { text("commands"), list } };
    if (!inShell)
        result.insert(text("options"), describedOptions(generalOptions()));
    return result;
}

QVariantHash helpObject(const Command& command)
{
    return { { text("name"), command.name },
             { text("arguments"), command.arguments },
             { text("summary"),
               QString(command.summary).replace(QLatin1Char('\n'), QLatin1Char(' ')) },
             { text("example"), exampleOf(command) },
             { text("options"), describedOptions(optionsOf(command)) } };
}

} // namespace tulo
