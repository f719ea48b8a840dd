#include "tulo-cm/help.h"

#include "tulo-cm/commandline.h"

#include <QRegularExpression>
#include <QVariant>

#include <algorithm>

namespace tulo {
namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

// ---------------------------------------------------------------------------------------------
// Parts.
// ---------------------------------------------------------------------------------------------

QString shownArgument(const Argument& argument)
{
    QString name = text(argument.name);
    switch (argument.count) {
    case Argument::Count::One:
        break;
    case Argument::Count::Optional:
        return QStringLiteral("[%1]").arg(name);
    case Argument::Count::OneOrMore:
        return name + text("...");
    case Argument::Count::Any:
        return QStringLiteral("[%1]...").arg(name);
    }
    return name;
}

QString shownArguments(const Command& command)
{
    QStringList words;
    for (const Argument& argument : command.arguments)
        words.append(shownArgument(argument));
    return words.join(QLatin1Char(' '));
}

QString withValue(const QString& name, const Option& option)
{
    return *option.valueName == 0 ? name : name + QLatin1Char(' ') + text(option.valueName);
}

QString purpose()
{
    return text("Reads, changes and watches the settings of a device: with --default-path and\n"
                "--write-path those of two directories, with --in-process those of the built-in\n"
                "directories, otherwise those of the service on the bus.\n");
}

QString exitCodes()
{
    return text("\nExit codes:\n"
                "  0  done\n"
                "  1  another error\n"
                "  2  usage\n"
                "  3  no such path\n"
                "  4  refused or rejected: the stored value stays as it was\n"
                "  5  stored, but adjusted by the setting's constraints\n"
                "  6  accepted, but not safely on disk\n"
                "  7  no service, no plug-in, the writable tree is in use by another process, or\n"
                "     this command needs the service\n"
                "  8  findings of a check\n"
                "130  interrupted while waiting for an answer\n");
}

QString optionLines(const QVector<Option>& options)
{
    const auto shown = [](const Option& option) {
        const QString letter = *option.letter == 0 ? QString() : text(", -") + text(option.letter);
        return text("  ") + withValue(spelled(option) + letter, option);
    };
    int width = 0;
    for (const Option& option : options)
        width = std::max(width, shown(option).size());
    QString result;
    for (const Option& option : options) {
        result +=
            shown(option).leftJustified(width + 2) + text(option.description) + QLatin1Char('\n');
    }
    return result;
}

// As it can be typed there.
QString shownExample(const Command& command, bool inShell)
{
    return (inShell ? QString() : text("tulo-cm ")) + text(command.example);
}

bool isForShell(const Command& command)
{
    return command.where == Command::Where::Shell;
}

// ---------------------------------------------------------------------------------------------
// For people.
// ---------------------------------------------------------------------------------------------

QString overview(bool inShell)
{
    QString result;
    if (!inShell)
        result = text("Usage: tulo-cm [OPTION]... COMMAND ...\n\n") + purpose() + QLatin1Char('\n');
    result += text("Commands:\n");
    constexpr int nameWidth = 12;
    for (const Command& command : commandTable()) {
        if (isTaken(command, inShell)) {
            result += text("  ") + text(command.name).leftJustified(nameWidth)
                + shortSummary(command) + QLatin1Char('\n');
        }
    }
    if (inShell) {
        return result
            + text("\n'help COMMAND' explains one. Words are separated by blanks; quote with\n"
                   "'...', \"...\" or \\. A line that begins with # is a comment. After 'cd', paths\n"
                   "without / in front are relative; on a terminal they always are. There Tab\n"
                   "completes, Ctrl-R searches the history, Ctrl-C drops the line or ends the\n"
                   "command, and Ctrl-D leaves. A line that begins with a blank is not remembered.\n");
    }
    return result
        + text("\n'tulo-cm help COMMAND' explains one, 'tulo-cm help' all of them with examples,\n"
               "the options and the exit codes.\n");
}

QString generalHelp()
{
    QString result = text("Usage: tulo-cm [OPTION]... COMMAND ...\n\n") + purpose()
        + text("\nCommands, each with an example:\n");
    const QString indent = text("\n      ");
    for (const Command& command : commandTable()) {
        if (isTaken(command, false)) {
            result += text("  ") + synopsis(command) + indent
                + text(command.summary).replace(QLatin1Char('\n'), indent) + indent
                + shownExample(command, false) + QLatin1Char('\n');
        }
    }
    return result + text("\nOptions:\n") + optionLines(generalOptions()) + exitCodes();
}

QString helpOf(const Command& command, bool inShell)
{
    QString result = text("Usage: ") + (inShell ? QString() : text("tulo-cm [OPTION]... "))
        + synopsis(command) + text("\n\n") + text(command.summary) + QLatin1Char('\n');
    if (!command.options.isEmpty())
        result += text("\nOptions:\n") + optionLines(command.options);
    return result + text("\nExample:\n  ") + shownExample(command, inShell) + QLatin1Char('\n');
}

// ---------------------------------------------------------------------------------------------
// For programs.
// ---------------------------------------------------------------------------------------------

QVariantList optionObjects(const QVector<Option>& options)
{
    QVariantList result;
    for (const Option& option : options) {
        QVariantMap object { { text("name"), text(option.name) },
                             { text("value"), text(option.valueName) },
                             { text("description"), text(option.description) } };
        if (*option.letter != 0)
            object.insert(text("letter"), text(option.letter));
        result.append(object);
    }
    return result;
}

QVariantMap helpObject(const Command& command)
{
    return { { text("name"), text(command.name) },
             { text("arguments"), shownArguments(command) },
             { text("summary"),
               text(command.summary).replace(QLatin1Char('\n'), QLatin1Char(' ')) },
             { text("example"), shownExample(command, isForShell(command)) },
             { text("options"), optionObjects(command.options) } };
}

QVariantMap helpObject(bool inShell)
{
    QVariantList list;
    for (const Command& command : commandTable()) {
        if (isTaken(command, inShell))
            list.append(helpObject(command));
    }
    QVariantMap result { { text("commands"), list } };
    if (!inShell)
        result.insert(text("options"), optionObjects(generalOptions()));
    return result;
}

int print(Output& output, QString text, const QVariantMap& object)
{
    if (output.isJson()) {
        output.object(object);
    } else {
        const Paging paging(output);
        text.chop(1);
        output.text(text);
    }
    return Done;
}

} // namespace

QString synopsis(const Command& command)
{
    QString line = text(command.name);
    if (!command.arguments.isEmpty())
        line += QLatin1Char(' ') + shownArguments(command);
    for (const Option& option : command.options)
        line += QStringLiteral(" [%1]").arg(withValue(spelled(option), option));
    return line;
}

// The summary up to its first details.
QString shortSummary(const Command& command)
{
    static const QRegularExpression details(text("[.,:;\\n]"));
    return text(command.summary).section(details, 0, 0);
}

int printOverview(const Context& context)
{
    return print(context.output, overview(context.inShell), helpObject(context.inShell));
}

int printGeneralHelp(const Context& context)
{
    return print(context.output, generalHelp(), helpObject(false));
}

int printHelp(const Context& context, const Command& command)
{
    return print(context.output, helpOf(command, context.inShell || isForShell(command)),
                 helpObject(command));
}

} // namespace tulo
