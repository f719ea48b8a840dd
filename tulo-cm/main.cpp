#include "tulo-cm/commandline.h"
#include "tulo-cm/completecommand.h"
#include "tulo-cm/flushing.h"
#include "tulo-cm/help.h"
#include "tulo-cm/logging.h"
#include "tulo-cm/place.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/suggesting.h"
#include "tulo-cm/textinput.h"
#include "tulo-cm/waiting.h"
#include "tulo-cm/watches.h"

#include "engine/localsettings.h"
#include "engine/standardstreams.h"
#include "trees/treeowner.h"

#include <tulo/remotesettings.h>

#include <QCoreApplication>
#include <QHash>
#include <QTextCodec>

#include <clocale>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>

namespace tulo {
namespace {

bool changesSettings(const Command& command)
{
    return command.needs == Command::Needs::Changes
        || command.needs == Command::Needs::ChangesOrSettings;
}

// ---------------------------------------------------------------------------------------------
// In this process.
// ---------------------------------------------------------------------------------------------

Error errorOf(const EngineFailure& failure)
{
    return { ErrorCode::Unavailable, failure.message, QString() };
}

int reportFailure(Output& output, const EngineFailure& failure)
{
    if (failure.kind == EngineFailure::Kind::Usage)
        return output.reportUsage(failure.message);
    return output.report(errorOf(failure));
}

std::unique_ptr<LocalSettings> openLocal(const Command& command, EngineOptions options,
                                         Output& output, EngineFailure* failure)
{
    const Progress progress(QStringLiteral("opening the settings"));
    if (changesSettings(command))
        options.access = EngineOptions::Access::Own;
    auto settings = LocalSettings::open(options, failure);
    const bool mayRead = failure->kind == EngineFailure::Kind::InUse
        || failure->kind == EngineFailure::Kind::NoAccess;
    if (settings || !mayRead || command.needs != Command::Needs::ChangesOrSettings)
        return settings;
    const QString reason = failure->message;
    options.access = EngineOptions::Access::Read;
    settings = LocalSettings::open(options, failure);
    if (settings)
        output.note(QStringLiteral("%1; this shell only reads").arg(reason));
    return settings;
}

void printNotes(const Command& command, const LocalSettings& settings, const QString& language,
                Output& output)
{
    if (settings.otherOwner() && !changesSettings(command)) {
        const QString process = *settings.otherOwner() == 0
            ? QStringLiteral("another process")
            : QStringLiteral("process %1").arg(*settings.otherOwner());
        output.note(QStringLiteral("the writable tree is in use by %1, whose latest changes may "
                                   "not be in it yet")
                        .arg(process));
    }
    const QStringList notes = settings.notes();
    for (const QString& note : notes)
        output.note(note);
    if (!language.isEmpty() && settings.catalogueCount() == 0)
        output.note(QStringLiteral("no catalogue for '%1': texts stay as they are").arg(language));
}

int runInOwnProcess(const Arguments& arguments, const Place& place, Output& output)
{
    const Command& command = *arguments.command;
    EngineFailure failure;
    // Read-only commands need no signal handling.
    std::optional<SignalHandler> signalHandler;
    if (changesSettings(command))
        signalHandler.emplace();
    const auto settings = openLocal(command, place.engine, output, &failure);
    if (!settings)
        return reportFailure(output, failure);
    printNotes(command, *settings, place.engine.language, output);

    Watches watches(*settings, output);
    Context context { output, place, settings.get(), &watches };
    const int exitCode = runWithHints(context, arguments);
    // Without a change there is nothing to write, and another owner may be using the tree.
    if (!settings->hasUnwrittenChanges())
        return exitCode;
    // Not the one that ended the shell.
    SignalHandler::forget();
    const auto flush = settings->flush();
    // Writes the files. What is left is waiting for the disk, which the settings would do at their
    // end, too.
    QCoreApplication::processEvents();
    const int flushed = finishFlush(*settings, flush, output);
    if (SignalHandler::isEndRequested()) {
        output.flush();
        SignalHandler::endProcess();
    }
    return afterFlush(exitCode, flushed);
}

// ---------------------------------------------------------------------------------------------
// On a service.
// ---------------------------------------------------------------------------------------------

QString noService(const Place& place, const QString& reason)
{
    if (!place.host.isEmpty())
        return QStringLiteral("no service on '%1': %2").arg(place.host, reason);
    const bool isNamed =
        place.bus == QLatin1String("system") || place.bus == QLatin1String("session");
    return QStringLiteral("no service on %1; use --in-process, or --default-path and "
                          "--write-path, to work without one")
        .arg((isNamed ? QStringLiteral("the %1 bus") : QStringLiteral("the bus '%1'"))
                 .arg(place.bus));
}

// Waits until the service is there. Where the bus can start it, a request does that.
int reach(RemoteSettings& settings, const Place& place, Output& output)
{
    const Progress progress(QStringLiteral("waiting for the service"));
    serveEvents(-1, [&settings] { return settings.state() != Settings::State::Connecting; });
    if (settings.state() == Settings::State::Ready)
        return Done;
    Error error = finished(settings.status()).error();
    if (settings.state() != Settings::State::Ready && error.code == ErrorCode::Unavailable)
        error.message = noService(place, error.message);
    return error ? output.report(error) : int(Done);
}

int runOnService(const Arguments& arguments, const Place& place, Output& output)
{
    // A client that is killed loses nothing: the service has its changes. But ssh would outlive it.
    std::optional<SignalHandler> signalHandler;
    if (arguments.command->runs == Command::Runs::UntilInterrupted || !place.host.isEmpty())
        signalHandler.emplace();
    RemoteSettings settings(place.bus);
    const int exitCode = reach(settings, place, output);
    if (exitCode != Done)
        return exitCode;
    Watches watches(settings, output);
    Context context { output, place, &settings, &watches };
    return runWithHints(context, arguments);
}

// ---------------------------------------------------------------------------------------------
// Any command.
// ---------------------------------------------------------------------------------------------

// Everything that comes before the command.
int prepare(const Arguments& arguments, Output& output, Place* place)
{
    const Command& command = *arguments.command;
    if (neededBy(arguments) != Command::Needs::Nothing) {
        QString error;
        const std::optional<Place> chosen = placeOf(arguments, &error);
        if (!chosen)
            return output.reportUsage(error);
        *place = *chosen;
        if (!place->host.isEmpty() && neededBy(arguments) == Command::Needs::Trees) {
            return output.reportUsage(
                QStringLiteral("'%1' looks at files; run it on '%2' itself, by ssh")
                    .arg(QLatin1String(command.name), place->host));
        }
        const bool isOwn = place->kind == Place::Kind::OwnProcess;
        if (isOwn && command.where == Command::Where::ServiceOrShell) {
            return output.report({ ErrorCode::Unavailable,
                                   QStringLiteral("'%1' works on the service or in the shell; "
                                                  "this process would end at once")
                                       .arg(QLatin1String(command.name)),
                                   QString() });
        }
        // Before logging, so that log files belong to the same user, too.
        const bool changesFiles =
            changesSettings(command) || command.needs == Command::Needs::OwnedTrees;
        const QString reason =
            isOwn && changesFiles ? becomeOwner(place->engine.writePath) : QString();
        if (!reason.isEmpty())
            return output.report({ ErrorCode::Unavailable, reason, QString() });
    }
    const QString error =
        configureLogging(arguments.value(general::logLevel), arguments.value(general::logConfig));
    return error.isEmpty() ? int(Done) : output.reportUsage(error);
}

int runCommand(const Arguments& arguments, Output& output)
{
    const Command& command = *arguments.command;
    Place place;
    const int exitCode = prepare(arguments, output, &place);
    if (exitCode != Done)
        return exitCode;
    const bool isOwn = place.kind == Place::Kind::OwnProcess;
    const Command::Needs needs = neededBy(arguments);
    const bool isForTrees = needs == Command::Needs::Trees || needs == Command::Needs::OwnedTrees;
    if (needs == Command::Needs::Nothing || (isOwn && isForTrees)) {
        Context context { output, place };
        return command.run(context, arguments);
    }
    return isOwn ? runInOwnProcess(arguments, place, output)
                 : runOnService(arguments, place, output);
}

int printVersion(Output& output)
{
    const QString version = QStringLiteral(TULO_VERSION);
    if (output.isJson())
        output.object({ { QStringLiteral("version"), version } });
    else
        output.line(QStringLiteral("tulo-cm ") + version);
    return Done;
}

int runParsed(const Arguments& arguments, Output& output)
{
    if (arguments.isSet(general::help)) {
        const Place place;
        const Context context { output, place };
        return arguments.command == nullptr ? printOverview(context)
                                            : printHelp(context, *arguments.command);
    }
    if (arguments.isSet(general::version))
        return printVersion(output);
    return runCommand(arguments, output);
}

// ---------------------------------------------------------------------------------------------
// The process.
// ---------------------------------------------------------------------------------------------

// Words are UTF-8 whatever the locale says, like everything that is read and printed.
std::optional<QStringList> decodeWords(int count, char** words, QString* error)
{
    QStringList result;
    for (int i = 1; i < count; ++i) {
        const auto word = decode(QByteArray(words[i]), QStringLiteral("argument %1").arg(i), error);
        if (!word)
            return std::nullopt;
        result.append(*word);
    }
    return result;
}

// Before parsing, as its errors are printed in the form that was asked for.
Output::Form formOf(const QStringList& words)
{
    const QStringList options = words.mid(0, words.indexOf(QStringLiteral("--")));
    return options.contains(spelled(general::json)) ? Output::Form::Json : Output::Form::Text;
}

// Returns what is wrong with the options that say how results are shown.
QString setDisplay(const Arguments& arguments, Output& output)
{
    static const QHash<QString, Colours> colours {
        { QStringLiteral("auto"), Colours::Auto },
        { QStringLiteral("always"), Colours::Always },
        { QStringLiteral("never"), Colours::Never },
    };
    const QString word =
        arguments.isSet(general::color) ? arguments.value(general::color) : QStringLiteral("auto");
    if (arguments.isSet(general::noPager))
        output.setNoPager();
    if (!colours.contains(word))
        return QStringLiteral("'--color' needs auto, always or never, not '%1'").arg(word);
    output.setColours(colours.value(word));
    return QString();
}

int run(const QStringList& words, QString error)
{
    Output output(formOf(words));
    ParsedLine line;
    if (error.isEmpty()) {
        line = parseCommandLine(words);
        error = line.error;
        const QString wrong = setDisplay(line.arguments, output);
        error = error.isEmpty() ? wrong : error;
    }
    if (!error.isEmpty()) {
        const int exitCode = output.reportUsage(error);
        suggest(output, line.suggestion);
        if (!output.isJson())
            output.note(QStringLiteral("try 'tulo-cm --help'"));
        return exitCode;
    }
    const int exitCode = runParsed(line.arguments, output);
    output.flush();
    return firstFailure(exitCode, output.hasFailed() ? int(Failed) : int(Done));
}

} // namespace
} // namespace tulo

int main(int argc, char** argv)
{
    tulo::openStandardStreams();
    const QCoreApplication application(argc, argv);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // A reader that goes away is noticed when writing to it.
    std::signal(SIGPIPE, SIG_IGN);

    if (argc > 1 && std::strcmp(argv[1], "complete") == 0)
        return tulo::runComplete(argc - 2, argv + 2);
    QString error;
    const auto words = tulo::decodeWords(argc, argv, &error);
    return tulo::run(words.value_or(QStringList()), error);
}
