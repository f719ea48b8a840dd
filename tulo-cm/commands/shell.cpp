#include "tulo-cm/commandline.h"
#include "tulo-cm/help.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/suggesting.h"
#include "tulo-cm/textinput.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace tulo {
namespace {

// Standard input, line by line, while events are served.
class LineReader
{
public:
    /// Waits for the next line; false at the end of the input or when a signal came.
    bool next(QByteArray* line)
    {
        // Events have their turn between two lines, however fast these come.
        QCoreApplication::processEvents();
        while (!m_buffer.contains('\n') && !m_ended && !SignalHandler::isEndRequested()) {
            if (!isReadable())
                waitForMore();
            else
                read();
        }
        if (SignalHandler::isEndRequested() || m_buffer.isEmpty())
            return false;
        // The last line needs no end.
        const int end = m_buffer.indexOf('\n');
        const int length = end < 0 ? m_buffer.size() : end;
        *line = m_buffer.left(length);
        m_buffer.remove(0, length + 1);
        return true;
    }

private:
    static bool isReadable()
    {
        pollfd input { STDIN_FILENO, POLLIN, 0 };
        return ::poll(&input, 1, 0) > 0;
    }

    static void waitForMore()
    {
        QSocketNotifier notifier(STDIN_FILENO, QSocketNotifier::Read);
        bool hasMore = false;
        QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [&] {
            notifier.setEnabled(false);
            hasMore = true;
        });
        serveEvents(-1, [&hasMore] { return hasMore; });
    }

    void read()
    {
        char bytes[64 * 1024];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count > 0)
            m_buffer.append(bytes, int(count));
        else if (count == 0 || (errno != EINTR && errno != EAGAIN))
            m_ended = true;
    }

    QByteArray m_buffer;
    bool m_ended = false;
};

// A line that begins with "#" is a comment of a script.
bool isComment(const QByteArray& line)
{
    return line.trimmed().startsWith('#');
}

int runWords(Context& context, const QStringList& words)
{
    const ParsedLine line = parseShellLine(words, context.directory);
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

// Parses and runs one line; its errors are printed and end nothing.
int runLine(Context& context, const QByteArray& bytes)
{
    QString error;
    const auto line = decode(bytes, QStringLiteral("the line"), &error);
    const auto words = line ? splitWords(*line, &error) : std::nullopt;
    if (!words)
        return context.output.reportUsage(error);
    return words->isEmpty() ? int(Done) : runWords(context, *words);
}

int run(Context& context, const Arguments&)
{
    Output& output = context.output;
    context.inShell = true;
    output.setErrorsInPlace();
    const bool isTyped = ::isatty(STDIN_FILENO) == 1;
    const bool prompts = !output.isJson() && isTyped && ::isatty(STDOUT_FILENO) == 1;

    int exitCode = Done;
    int lineNumber = 0;
    LineReader reader;
    QByteArray line;
    while (!context.quit && !output.isClosed()) {
        if (prompts)
            output.prompt(QStringLiteral("tulo-cm> "));
        if (!reader.next(&line)) {
            if (prompts)
                output.line(QString());
            break;
        }
        ++lineNumber;
        if (!isTyped)
            output.setInputLine(lineNumber);
        if (!isComment(line))
            exitCode = firstFailure(exitCode, runLine(context, line));
        // What comes between two lines belongs to neither.
        output.setInputLine(0);
        output.flush();
    }
    return exitCode;
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
