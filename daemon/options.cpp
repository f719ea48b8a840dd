#include "daemon/options.h"

#include "client/base/checks.h"
#include "daemon/changelimit.h"
#include "engine/engine.h"
#include "trees/treeoptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>

namespace tulo {

namespace {

QString check(const DaemonOptions& options)
{
    QString reason = checkProduct(options.product);
    if (!reason.isEmpty())
        return reason;
    if (!options.language.isEmpty() && options.catalogues.isEmpty())
        return QStringLiteral("'--language' needs '--catalogues'");
    reason = checkBus(options.bus);
    if (!reason.isEmpty())
        return reason;
    QStringList directories = QStringList { options.defaultPath } + options.catalogues;
    if (!options.waitsForMount || options.writePath.isEmpty())
        directories.append(options.writePath);
    if (!options.migrations.isEmpty())
        directories.append(options.migrations);
    for (const QString& directory : directories) {
        reason = checkDirectory(directory);
        if (!reason.isEmpty())
            return reason;
    }
    return QString();
}

QString checkChangesPerMinute(const QString& text, int* number)
{
    bool isNumber = true;
    *number = text.isEmpty() ? 0 : text.toInt(&isNumber);
    if (isNumber && *number >= 0 && *number <= ChangeLimit::maximumPerMinute)
        return QString();
    return QStringLiteral("'%1' is not a number of changes a minute, which is from 0 to %2")
        .arg(text, QString::number(ChangeLimit::maximumPerMinute));
}

QString builtInPlugin()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                           + QStringLiteral(TULO_DEFAULT_PLUGIN));
}

} // namespace

std::optional<DaemonOptions> parseOptions(const QStringList& words, QString* reason)
{
    const QCommandLineOption defaultPath(
        QStringLiteral("default-path"),
        QStringLiteral("Directory of the default tree, %1 if not given.")
            .arg(Engine::builtInDefaultPath()),
        QStringLiteral("DIR"));
    const QCommandLineOption writePath(
        QStringLiteral("write-path"),
        QStringLiteral("Directory of the writable tree, %1 if not given.")
            .arg(Engine::builtInWritePath()),
        QStringLiteral("DIR"));
    const QCommandLineOption waitForMount(
        QStringLiteral("wait-for-mount"),
        QStringLiteral("Serve defaults and refuse changes while the writable tree is missing or on "
                       "the root file system."));
    const QCommandLineOption product(
        QStringLiteral("product"),
        QStringLiteral("Prefer files with this postfix. Empty: no product variant."),
        QStringLiteral("POSTFIX"));
    const QCommandLineOption migrations(
        QStringLiteral("migrations"),
        QStringLiteral("Directory of the rules for written values, 'settings-migrations' beside "
                       "the default tree if not given."),
        QStringLiteral("DIR"));
    const QCommandLineOption language(
        QStringLiteral("language"),
        QStringLiteral("Language of titles and descriptions, such as 'de'. Empty: as they are "
                       "written."),
        QStringLiteral("LOCALE"));
    const QCommandLineOption catalogues(
        QStringLiteral("catalogues"),
        QStringLiteral("Directory with the language's catalogues; may be given several times."),
        QStringLiteral("DIR"));
    const QCommandLineOption bus(
        QStringLiteral("bus"),
        QStringLiteral("The bus: 'system' (if not given), 'session' or an address."),
        QStringLiteral("BUS"), QStringLiteral("system"));
    const QCommandLineOption changesPerMinute(
        QStringLiteral("changes-per-minute"),
        QStringLiteral("Refuse a user's changes that are more than N a minute. 0 or empty: no "
                       "limit."),
        QStringLiteral("N"));
    const QCommandLineOption plugin(QStringLiteral("plugin"),
                                    QStringLiteral("The worker's plug-in."), QStringLiteral("FILE"),
                                    builtInPlugin());
    const QCommandLineOption logLevel(
        QStringLiteral("log-level"),
        QStringLiteral("Log this level and above to standard error: trace, debug, info, warn, "
                       "error, fatal or off."),
        QStringLiteral("LEVEL"));
    const QCommandLineOption logConfig(
        QStringLiteral("log-config"),
        QStringLiteral("Log as this log4cplus property file says; SIGHUP reads it again."),
        QStringLiteral("FILE"));
    const QCommandLineOption adopt(
        QStringLiteral("adopt"),
        QStringLiteral("Serve nothing: give the writable tree back to this user, whose number "
                       "another image changed, and end. For root, before the service starts."),
        QStringLiteral("USER"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Serves the settings of a device on D-Bus, until SIGTERM or SIGINT.\n"
                       "Ends with 0, or with 2: wrong usage, 6: not everything could be saved,\n"
                       "7: no bus, or the trees cannot be used, 8: a file in them is wrong."));
    parser.addOptions({ defaultPath, writePath, waitForMount, product, migrations, language,
                        catalogues, bus, changesPerMinute, plugin, logLevel, logConfig, adopt });
    parser.addHelpOption();
    parser.addVersionOption();
    if (!parser.parse(words)) {
        *reason = parser.errorText();
        return std::nullopt;
    }
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty()) {
        *reason =
            QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first());
        return std::nullopt;
    }
    if (parser.isSet(defaultPath) != parser.isSet(writePath)) {
        *reason = QStringLiteral("'--default-path' and '--write-path' need each other");
        return std::nullopt;
    }

    DaemonOptions options;
    const bool isBuiltIn = !parser.isSet(defaultPath);
    options.defaultPath = isBuiltIn ? Engine::builtInDefaultPath() : parser.value(defaultPath);
    options.writePath = isBuiltIn ? Engine::builtInWritePath() : parser.value(writePath);
    options.waitsForMount = parser.isSet(waitForMount);
    options.product = parser.value(product);
    options.migrations = parser.value(migrations);
    options.language = parser.value(language);
    options.catalogues = parser.values(catalogues);
    // As from a variable that is not set, in a unit.
    options.catalogues.removeAll(QString());
    options.bus = parser.value(bus);
    options.plugin = parser.value(plugin);
    options.logLevel = parser.value(logLevel);
    options.logConfiguration = parser.value(logConfig);
    options.adoptingUser = parser.value(adopt);
    // The tree may come later, with the partition that it is on.
    if (parser.isSet(adopt)) {
        if (options.adoptingUser.isEmpty())
            *reason = QStringLiteral("'--adopt' needs the name of a user");
        return reason->isEmpty() ? std::make_optional(options) : std::nullopt;
    }
    *reason = checkChangesPerMinute(parser.value(changesPerMinute), &options.changesPerMinute);
    if (reason->isEmpty())
        *reason = check(options);
    if (!reason->isEmpty())
        return std::nullopt;
    return options;
}

} // namespace tulo
