#include "bussession.h"
#include "commands.h"
#include "localsession.h"
#include "logging.h"
#include "serve.h"
#include "signalhandler.h"
#include "textinput.h"

#include "trees/nodenames.h"
#include "trees/treeowner.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTextCodec>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace tulo {

namespace {

const QString defaultPathOption = QStringLiteral("default-path");
const QString writePathOption = QStringLiteral("write-path");
const QString inProcessOption = QStringLiteral("in-process");
const QString busOption = QStringLiteral("bus");
const QString productOption = QStringLiteral("product");
const QString pluginOption = QStringLiteral("plugin");
const QString languageOption = QStringLiteral("language");
const QString cataloguesOption = QStringLiteral("catalogues");

// ---------------------------------------------------------------------------------------------
// Where to work, from the options.
// ---------------------------------------------------------------------------------------------

bool isServing(const Arguments& arguments)
{
    return arguments.command->needs == Command::Needs::Bus;
}

bool isOwnProcess(const Arguments& arguments)
{
    return arguments.isSet(inProcessOption) || arguments.isSet(defaultPathOption)
        || isServing(arguments);
}

QString busName(const Arguments& arguments)
{
    return arguments.isSet(busOption) ? arguments.value(busOption) : QStringLiteral("system");
}

Failure checkDirectory(const QString& path)
{
    // An empty name would stand for the built-in directory further down.
    const QFileInfo directory(path);
    if (path.isEmpty() || !directory.exists())
        return usageFailure(QStringLiteral("directory '%1' does not exist").arg(path));
    if (!directory.isDir())
        return usageFailure(QStringLiteral("'%1' is not a directory").arg(path));
    return {};
}

Failure checkPlace(const Arguments& arguments)
{
    const bool hasDefault = arguments.isSet(defaultPathOption);
    const bool hasWrite = arguments.isSet(writePathOption);
    if (hasDefault != hasWrite) {
        return usageFailure(QStringLiteral("'--%1' needs '--%2'")
                                .arg(hasDefault ? defaultPathOption : writePathOption,
                                     hasDefault ? writePathOption : defaultPathOption));
    }
    if (!isOwnProcess(arguments)) {
        for (const QString& option :
             { productOption, pluginOption, languageOption, cataloguesOption }) {
            if (arguments.isSet(option)) {
                return usageFailure(QStringLiteral("'--%1' needs '--default-path' and "
                                                   "'--write-path', or '--in-process'")
                                        .arg(option));
            }
        }
        return {};
    }
    if (isServing(arguments)) {
        return arguments.isSet(inProcessOption)
            ? usageFailure(QStringLiteral("'serve' takes no option '--%1'").arg(inProcessOption))
            : Failure();
    }
    if (arguments.isSet(busOption)) {
        return usageFailure(QStringLiteral("'--bus' and '--%1' exclude each other")
                                .arg(hasDefault ? defaultPathOption : inProcessOption));
    }
    return {};
}

Failure checkWorkerOptions(const Arguments& arguments)
{
    const QString product = arguments.value(productOption);
    if (!product.isEmpty() && !isListable(product)) {
        return usageFailure(
            QStringLiteral(
                "'%1' is not a product postfix, which has only letters, digits, '_' and '-'")
                .arg(product));
    }
    if (arguments.isSet(languageOption) && !arguments.isSet(cataloguesOption))
        return usageFailure(QStringLiteral("'--language' needs '--catalogues'"));
    for (const QString& directory : arguments.values(cataloguesOption)) {
        Failure failure = checkDirectory(directory);
        if (failure)
            return failure;
    }
    return {};
}

// Everything that can be said of the options before anything is opened.
Failure checkOptions(const Arguments& arguments, TreeDirectories* trees)
{
    Failure failure = checkPlace(arguments);
    if (failure || !isOwnProcess(arguments))
        return failure;
    const bool isBuiltIn = !arguments.isSet(defaultPathOption);
    trees->defaultPath =
        isBuiltIn ? Engine::builtInDefaultPath() : arguments.value(defaultPathOption);
    trees->writePath = isBuiltIn ? Engine::builtInWritePath() : arguments.value(writePathOption);
    for (const QString& directory : { trees->defaultPath, trees->writePath }) {
        failure = checkDirectory(directory);
        if (failure)
            return failure;
    }
    return checkWorkerOptions(arguments);
}

QString pluginFile(const Arguments& arguments)
{
    if (arguments.isSet(pluginOption))
        return arguments.value(pluginOption);
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                           + QStringLiteral(TULO_DEFAULT_PLUGIN));
}

// ---------------------------------------------------------------------------------------------
// Running the command.
// ---------------------------------------------------------------------------------------------

EngineOptions engineOptions(const Arguments& arguments, const TreeDirectories& trees)
{
    EngineOptions options;
    options.pluginFile = pluginFile(arguments);
    options.defaultPath = trees.defaultPath;
    options.writePath = trees.writePath;
    options.productPostfix = arguments.value(productOption);
    options.language = arguments.value(languageOption);
    options.catalogues = arguments.values(cataloguesOption);
    return options;
}

Failure startLogging(const Arguments& arguments)
{
    return configureLogging(arguments.value(QStringLiteral("log-level")),
                            arguments.value(QStringLiteral("log-config")));
}

std::unique_ptr<LocalSession> openLocal(const EngineOptions& options, const Arguments& arguments,
                                        Output& output, Failure* failure)
{
    const Command& command = *arguments.command;
    auto access = LocalSession::Access::Read;
    if (command.needs == Command::Needs::Changes)
        access = command.run == runShell ? LocalSession::Access::OwnIfPossible
                                         : LocalSession::Access::Own;
    std::unique_ptr<LocalSession> session = LocalSession::open(options, access, failure);
    if (!session)
        return nullptr;

    if (!session->readOnlyReason().isEmpty()) {
        output.note(QStringLiteral("%1; this shell only reads").arg(session->readOnlyReason()));
    } else if (session->otherOwner()) {
        const QString process = *session->otherOwner() == 0
            ? QStringLiteral("another process")
            : QStringLiteral("process %1").arg(*session->otherOwner());
        output.note(QStringLiteral("the writable tree is in use by %1, whose latest changes may "
                                   "not be in it yet")
                        .arg(process));
    }
    if (!options.language.isEmpty() && session->catalogueCount() == 0) {
        output.note(
            QStringLiteral("no catalogue for '%1': texts stay as they are").arg(options.language));
    }
    return session;
}

int runOnSession(Session& session, BusSession* service, const Arguments& arguments, Output& output)
{
    Watches watches(session, output);
    Context context { output, &session, service, &watches, TreeDirectories() };
    const int exitCode = arguments.command->run(context, arguments);

    const Failure failure = session.settle(arguments.isSet(QStringLiteral("flush")));
    if (failure)
        output.failure(failure);
    // An adjusted value is still pending: report the write failure instead.
    if (failure && !context.inShell && exitCode == Adjusted)
        return failure.exitCode;
    return firstFailure(exitCode, failure.exitCode);
}

int runInOwnProcess(const EngineOptions& options, const Arguments& arguments, Output& output)
{
    const Command& command = *arguments.command;
    // Read-only commands need no signal handling.
    std::optional<SignalHandler> signalHandler;
    if (command.needs == Command::Needs::Changes)
        signalHandler.emplace();
    Failure failure;
    const std::unique_ptr<LocalSession> session = openLocal(options, arguments, output, &failure);
    if (!session) {
        output.failure(failure);
        return failure.exitCode;
    }
    return runOnSession(*session, nullptr, arguments, output);
}

int runOnService(const Arguments& arguments, Output& output)
{
    // A client that is killed loses nothing: the service has its changes. Only commands that wait
    // in the event loop handle signals.
    const Command& command = *arguments.command;
    std::optional<SignalHandler> signalHandler;
    if (command.run == runWatch || command.run == runShell)
        signalHandler.emplace();
    Failure failure;
    const std::unique_ptr<BusSession> session = BusSession::open(busName(arguments), &failure);
    if (!session) {
        output.failure(failure);
        return failure.exitCode;
    }
    QObject::connect(session.get(), &BusSession::watchesLost, session.get(), [&output] {
        output.failure({ Unavailable, QStringLiteral("NoBus"),
                         QStringLiteral("the bus closed the connection; changes from now on are "
                                        "missed"),
                         QString() });
    });
    return runOnSession(*session, session.get(), arguments, output);
}

// Everything that comes before the command, for which it sets the trees.
Failure prepare(const Arguments& arguments, TreeDirectories* trees)
{
    const Command& command = *arguments.command;
    if (command.needs == Command::Needs::Nothing)
        return startLogging(arguments);
    Failure failure = checkOptions(arguments, trees);
    if (!failure && isOwnProcess(arguments) && command.place == Command::Place::ServiceOrShell) {
        failure = { Unavailable, QStringLiteral("NoService"),
                    QStringLiteral("'%1' works on the service or in the shell; this process would "
                                   "end at once")
                        .arg(command.name),
                    QString() };
    }
    const bool isWriting = isServing(arguments)
        || (isOwnProcess(arguments) && command.needs == Command::Needs::Changes);
    if (!failure && isWriting) {
        // Before logging, so that log files belong to the same user, too.
        const QString reason = becomeOwner(trees->writePath);
        if (!reason.isEmpty())
            failure = { Unavailable, QStringLiteral("NoAccess"), reason, QString() };
    }
    return failure ? failure : startLogging(arguments);
}

int runCommand(const Arguments& arguments, Output& output)
{
    const Command& command = *arguments.command;
    Context context { output, nullptr, nullptr, nullptr, TreeDirectories() };
    const Failure failure = prepare(arguments, &context.trees);
    if (failure) {
        output.failure(failure);
        return failure.exitCode;
    }
    if (command.needs == Command::Needs::Nothing)
        return command.run(context, arguments);
    if (!isOwnProcess(arguments))
        return runOnService(arguments, output);
    if (command.needs == Command::Needs::Files)
        return command.run(context, arguments);
    const EngineOptions options = engineOptions(arguments, context.trees);
    if (isServing(arguments)) {
        return serve({ options, busName(arguments),
                       [&arguments] {
                           return startLogging(arguments);
                       } },
                     output);
    }
    return runInOwnProcess(options, arguments, output);
}

void printVersion(Output& output)
{
    const QString version = QStringLiteral(TULO_VERSION);
    if (output.isJson())
        output.object({ { QStringLiteral("version"), version } });
    else
        output.line(QStringLiteral("tulo-cm ") + version);
}

int runParsed(const Arguments& arguments, Output& output)
{
    if (arguments.isSet(QStringLiteral("help"))) {
        Context context { output, nullptr, nullptr, nullptr, TreeDirectories() };
        return runHelpOption(context, arguments);
    }
    if (arguments.isSet(QStringLiteral("version"))) {
        printVersion(output);
        return Done;
    }
    return runCommand(arguments, output);
}

// A file opened in the place of a closed standard stream would get what is meant for that.
void openStandardStreams()
{
    for (const int descriptor : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO }) {
        // The lowest free descriptor is taken, which is this one.
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != descriptor)
            std::abort();
    }
}

// Words are UTF-8 whatever the locale says, like everything that is read and printed.
Answer<QStringList> decodeWords(int count, char** words)
{
    QStringList result;
    for (int i = 1; i < count; ++i) {
        const Answer<QString> word =
            decode(QByteArray(words[i]), QStringLiteral("argument %1").arg(i));
        if (word.failure)
            return { {}, word.failure };
        result.append(word.value);
    }
    return { result, {} };
}

} // namespace

} // namespace tulo

int main(int argc, char** argv)
{
    using namespace tulo;

    openStandardStreams();
    const QCoreApplication application(argc, argv);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // A reader that goes away is noticed when writing to it.
    std::signal(SIGPIPE, SIG_IGN);

    const Answer<QStringList> words = decodeWords(argc, argv);
    // Before parsing, as its failures are printed in the form that was asked for.
    const int optionsEnd = words.value.indexOf(QStringLiteral("--"));
    const bool isJson = words.value.mid(0, optionsEnd).contains(QStringLiteral("--json"));
    Output output(isJson ? Output::Form::Json : Output::Form::Text);

    Failure failure = words.failure;
    Arguments arguments;
    if (!failure)
        arguments = parseCommandLine(words.value, &failure);
    if (failure) {
        output.failure(failure);
        if (!output.isJson())
            output.note(QStringLiteral("try 'tulo-cm --help'"));
        return failure.exitCode;
    }
    const int exitCode = runParsed(arguments, output);
    output.flush();
    return firstFailure(exitCode, output.hasFailed() ? int(Failed) : int(Done));
}
