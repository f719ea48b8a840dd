#include "tulo-cm/commandline.h"
#include "tulo-cm/help.h"
#include "tulo-cm/history.h"
#include "tulo-cm/lineeditor.h"
#include "tulo-cm/linereader.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/suggesting.h"
#include "tulo-cm/tabcompletion.h"
#include "tulo-cm/textinput.h"
#include "tulo-cm/waiting.h"
#include "tulo-cm/watches.h"

#include "trees/printable.h"

#include <tulo/settings.h>

#include <QObject>

#include <utility>

#include <unistd.h>

namespace tulo {
namespace {

// ---------------------------------------------------------------------------------------------
// One line.
// ---------------------------------------------------------------------------------------------

ParsedLine parseText(const Context& context, const QString& text)
{
    ParsedLine line;
    const auto words = splitWords(text, &line.error);
    return words ? parseShellLine(*words, context.directory) : line;
}

// Errors are printed and end nothing.
int runLine(Context& context, const ParsedLine& line)
{
    if (!line.error.isEmpty()) {
        const int exitCode = context.output.reportUsage(line.error);
        suggest(context.output, line.suggestion);
        return exitCode;
    }
    const Command* const command = line.arguments.command;
    if (command == nullptr)
        return printOverview(context);
    if (line.arguments.isSet(general::help))
        return printHelp(context, *command);
    return runWithHints(context, line.arguments);
}

// Blanks, or a comment.
bool isNothing(const QString& text)
{
    const QString trimmed = text.trimmed();
    return trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#'));
}

QString promptOf(const Context& context)
{
    return escaped(context.directory) + QLatin1String("> ");
}

// ---------------------------------------------------------------------------------------------
// Lines of a script, a program, or a terminal on which no line can be edited.
// ---------------------------------------------------------------------------------------------

int runBytes(Context& context, const QByteArray& bytes)
{
    // A comment can be in any encoding.
    if (bytes.trimmed().startsWith('#'))
        return Done;
    QString error;
    const auto text = decode(bytes, QStringLiteral("the line"), &error);
    if (!text)
        return context.output.reportUsage(error);
    return isNothing(*text) ? int(Done) : runLine(context, parseText(context, *text));
}

int runRead(Context& context, bool prompts)
{
    Output& output = context.output;
    const bool isTyped = ::isatty(STDIN_FILENO) == 1;
    int exitCode = Done;
    int lineNumber = 0;
    LineReader reader;
    QByteArray line;
    while (!context.quit && !output.isClosed()) {
        if (prompts)
            output.prompt(promptOf(context));
        if (!reader.next(&line)) {
            if (prompts)
                output.line(QString());
            if (SignalHandler::takeInterruption())
                continue;
            break;
        }
        ++lineNumber;
        if (!isTyped)
            output.setInputLine(lineNumber);
        exitCode = firstFailure(exitCode, runBytes(context, line));
        // What comes between two lines belongs to neither.
        output.setInputLine(0);
        output.flush();
        if (prompts && SignalHandler::takeInterruption())
            output.line(QString());
    }
    return exitCode;
}

// ---------------------------------------------------------------------------------------------
// Lines that a person edits.
// ---------------------------------------------------------------------------------------------

enum class Remembered { Never, Here, InFile };

// A line that the file may hold has no value of an encrypted setting in it. If we cannot tell, as
// where the path is mistyped, the line can only be called back in this shell. To be asked after
// the line was run, as it may create the setting.
Remembered rememberedAs(const Context& context, const QString& text, const ParsedLine& line)
{
    if (text.at(0).isSpace())
        return Remembered::Never;
    if (!line.error.isEmpty())
        return Remembered::Here;
    const Command* const command = line.arguments.command;
    if (command == nullptr || command->needs != Command::Needs::Changes)
        return Remembered::InFile;
    const bool hasPath = command->arguments.value(0).kind == Argument::Kind::Path;
    for (const QString& path : hasPath ? line.arguments.positional.mid(0, 1) : QStringList()) {
        const auto setting = finished(context.settings->get(path, { roles::encrypted() }));
        if (setting.error())
            return Remembered::Here;
        if (setting.value().value(roles::encrypted()).toBool())
            return Remembered::Never;
    }
    return Remembered::InFile;
}

// Says once that the service has gone, and that it is back. Watches say it themselves.
void tellState(Context& context, Settings::State state, bool* isAway)
{
    const bool wasAway = std::exchange(*isAway, state == Settings::State::Away);
    if (wasAway == *isAway || !context.watches->isEmpty())
        return;
    context.output.note(*isAway ? QStringLiteral("the service has gone; commands fail until it is "
                                                 "back")
                                : QStringLiteral("the service is back"));
}

int runTyped(Context& context)
{
    Output& output = context.output;
    History history;
    const auto noteNoHistory = [&output](const QString& reason) {
        if (!reason.isEmpty())
            output.note(QStringLiteral("lines are not kept for the next shell: %1").arg(reason));
    };
    noteNoHistory(history.open());
    QObject receiver;
    bool isAway = false;
    QObject::connect(context.settings, &Settings::stateChanged, &receiver,
                     [&](Settings::State state) { tellState(context, state, &isAway); });

    LineEditor editor(output,
                      [&context](const QString& line) { return completeLine(context, line); });
    int exitCode = Done;
    QString text;
    while (!context.quit && !output.isClosed()) {
        editor.setHistory(history.lines());
        const LineEditor::Result result = editor.next(promptOf(context), &text);
        if (result == LineEditor::Result::End)
            break;
        if (result == LineEditor::Result::Dropped || isNothing(text))
            continue;
        const ParsedLine line = parseText(context, text);
        exitCode = firstFailure(exitCode, runLine(context, line));
        output.flush();
        // It ended the command.
        (void)SignalHandler::takeInterruption();
        const Remembered remembered = rememberedAs(context, text, line);
        if (remembered != Remembered::Never) {
            noteNoHistory(history.add(text,
                                      remembered == Remembered::InFile ? History::Keep::InFile
                                                                       : History::Keep::Here));
        }
    }
    return exitCode;
}

int run(Context& context, const Arguments&)
{
    Output& output = context.output;
    context.inShell = true;
    output.setErrorsInPlace();
    if (output.isJson() || ::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1)
        return runRead(context, false);
    SignalHandler::setInteractive();
    context.directory = topPath();
    return LineEditor::isPossible() ? runTyped(context) : runRead(context, true);
}

} // namespace

namespace commands {

Command shell()
{
    return { "shell",
             "",
             {},
             {},
             "Runs commands from standard input, one a line, in one process.",
             "shell",
             Command::Where::CommandLine,
             Command::Needs::ChangesOrSettings,
             Command::Runs::UntilInterrupted,
             run };
}

} // namespace commands
} // namespace tulo
