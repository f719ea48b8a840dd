#include "tulo-cm/place.h"

#include "tulo-cm/commandline.h"

#include "client/base/checks.h"
#include "trees/treeoptions.h"

#include <tulo/remotesettings.h>

#include <QCoreApplication>
#include <QDir>

namespace tulo {
namespace {

// ---------------------------------------------------------------------------------------------
// Options that exclude or need each other. Each function returns what is wrong; nothing is wrong
// when it is empty.
// ---------------------------------------------------------------------------------------------

QString excludes(const QString& left, const QString& right)
{
    return QStringLiteral("'%1' and '%2' exclude each other").arg(left, right);
}

// The default tree that the command's argument names. Null for none.
QString treeArgument(const Arguments& arguments)
{
    const QVector<Argument>& known = arguments.command->arguments;
    const bool takesTree = !known.isEmpty() && known.first().kind == Argument::Kind::Tree;
    return takesTree ? arguments.positional.value(0) : QString();
}

QString validateOwnProcess(const Arguments& arguments)
{
    const QString tree = treeArgument(arguments);
    const QString chosen = !tree.isNull()       ? tree
        : arguments.isSet(general::defaultPath) ? spelled(general::defaultPath)
                                                : spelled(general::inProcess);
    for (const Option& option : { general::bus, general::host }) {
        if (arguments.isSet(option))
            return excludes(spelled(option), chosen);
    }
    return !tree.isNull() && arguments.isSet(general::defaultPath)
        ? excludes(spelled(general::defaultPath), tree)
        : QString();
}

QString validateService(const Arguments& arguments)
{
    for (const Option& option : { general::product, general::migrations, general::plugin,
                                  general::language, general::catalogues }) {
        if (arguments.isSet(option)) {
            return QStringLiteral("'%1' needs '--default-path' and '--write-path', or "
                                  "'--in-process'")
                .arg(spelled(option));
        }
    }
    if (arguments.isSet(general::bus) && arguments.isSet(general::host))
        return excludes(spelled(general::bus), spelled(general::host));
    return arguments.isSet(general::bus) ? checkBus(arguments.value(general::bus)) : QString();
}

QString validateWorker(const Arguments& arguments)
{
    QString error = checkProduct(arguments.value(general::product));
    if (error.isEmpty() && arguments.isSet(general::migrations))
        error = checkDirectory(arguments.value(general::migrations));
    if (!error.isEmpty())
        return error;
    if (arguments.isSet(general::language) && !arguments.isSet(general::catalogues))
        return QStringLiteral("'--language' needs '--catalogues'");
    for (const QString& directory : arguments.values(general::catalogues)) {
        error = checkDirectory(directory);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// ---------------------------------------------------------------------------------------------
// The place.
// ---------------------------------------------------------------------------------------------

Place servicePlace(const Arguments& arguments, QString* error)
{
    Place place;
    *error = validateService(arguments);
    place.bus =
        arguments.isSet(general::bus) ? arguments.value(general::bus) : QStringLiteral("system");
    if (error->isEmpty() && arguments.isSet(general::host)) {
        Error hostError;
        place.host = arguments.value(general::host);
        place.bus = RemoteSettings::addressOfHost(place.host, &hostError);
        *error = hostError.message;
    }
    return place;
}

QString pluginFile(const Arguments& arguments)
{
    if (arguments.isSet(general::plugin))
        return arguments.value(general::plugin);
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                           + QStringLiteral(TULO_DEFAULT_PLUGIN));
}

// By the command's argument, or by the option. Null for none.
QString defaultTree(const Arguments& arguments)
{
    const QString tree = treeArgument(arguments);
    return tree.isNull() ? arguments.value(general::defaultPath) : tree;
}

// Without a writable tree where the command can do without: its name is empty then.
EngineOptions engineOptions(const Arguments& arguments)
{
    const bool isBuiltIn = defaultTree(arguments).isNull();
    EngineOptions options;
    options.pluginFile = pluginFile(arguments);
    options.defaultPath = isBuiltIn ? Engine::builtInDefaultPath() : defaultTree(arguments);
    options.writePath =
        isBuiltIn ? Engine::builtInWritePath() : arguments.value(general::writePath);
    options.productPostfix = arguments.value(general::product);
    options.migrationsPath = arguments.value(general::migrations);
    options.language = arguments.value(general::language);
    options.catalogues = arguments.values(general::catalogues);
    return options;
}

QString validateEngine(const Arguments& arguments, const EngineOptions& options)
{
    for (const QString& directory : { options.defaultPath, options.writePath }) {
        QString error = directory.isNull() ? QString() : checkDirectory(directory);
        if (!error.isEmpty())
            return error;
    }
    return validateWorker(arguments);
}

} // namespace

std::optional<Place> placeOf(const Arguments& arguments, QString* error)
{
    Place place;
    const bool hasDefault = !defaultTree(arguments).isNull();
    const bool hasWritten = arguments.isSet(general::writePath);
    const bool mayLackWritten = arguments.command->needs == Command::Needs::Trees;
    if (hasDefault != hasWritten && !(hasDefault && mayLackWritten)) {
        *error = QStringLiteral("'%1' needs '%2'")
                     .arg(spelled(hasDefault ? general::defaultPath : general::writePath),
                          spelled(hasDefault ? general::writePath : general::defaultPath));
    } else if (hasDefault || arguments.isSet(general::inProcess)) {
        place.kind = Place::Kind::OwnProcess;
        place.engine = engineOptions(arguments);
        *error = validateOwnProcess(arguments);
        if (error->isEmpty())
            *error = validateEngine(arguments, place.engine);
    } else {
        place = servicePlace(arguments, error);
    }
    return error->isEmpty() ? std::optional<Place>(place) : std::nullopt;
}

} // namespace tulo
