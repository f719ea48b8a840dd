#include "tulo-cm/place.h"

#include "tulo-cm/commandline.h"

#include "client/base/checks.h"
#include "trees/nodenames.h"

#include <tulo/remotesettings.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace tulo {
namespace {

// ---------------------------------------------------------------------------------------------
// Options that exclude or need each other. Each function returns what is wrong; nothing is wrong
// when it is empty.
// ---------------------------------------------------------------------------------------------

QString excludes(const Option& left, const Option& right)
{
    return QStringLiteral("'%1' and '%2' exclude each other").arg(spelled(left), spelled(right));
}

QString validateOwnProcess(const Arguments& arguments)
{
    const Option& chosen =
        arguments.isSet(general::defaultPath) ? general::defaultPath : general::inProcess;
    for (const Option& option : { general::bus, general::host }) {
        if (arguments.isSet(option))
            return excludes(option, chosen);
    }
    return QString();
}

QString validateService(const Arguments& arguments)
{
    for (const Option& option :
         { general::product, general::plugin, general::language, general::catalogues }) {
        if (arguments.isSet(option)) {
            return QStringLiteral("'%1' needs '--default-path' and '--write-path', or "
                                  "'--in-process'")
                .arg(spelled(option));
        }
    }
    if (arguments.isSet(general::bus) && arguments.isSet(general::host))
        return excludes(general::bus, general::host);
    return arguments.isSet(general::bus) ? checkBus(arguments.value(general::bus)) : QString();
}

QString validateDirectory(const QString& path)
{
    // An empty name would stand for the built-in directory further down.
    const QFileInfo directory(path);
    if (path.isEmpty() || !directory.exists())
        return QStringLiteral("directory '%1' does not exist").arg(path);
    if (!directory.isDir())
        return QStringLiteral("'%1' is not a directory").arg(path);
    return QString();
}

QString validateWorker(const Arguments& arguments)
{
    const QString product = arguments.value(general::product);
    if (!product.isEmpty() && !isListable(product)) {
        return QStringLiteral("'%1' is not a product postfix, which has only letters, digits, '_' "
                              "and '-'")
            .arg(product);
    }
    if (arguments.isSet(general::language) && !arguments.isSet(general::catalogues))
        return QStringLiteral("'--language' needs '--catalogues'");
    for (const QString& directory : arguments.values(general::catalogues)) {
        QString error = validateDirectory(directory);
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

EngineOptions engineOptions(const Arguments& arguments)
{
    const bool isBuiltIn = !arguments.isSet(general::defaultPath);
    EngineOptions options;
    options.pluginFile = pluginFile(arguments);
    options.defaultPath =
        isBuiltIn ? Engine::builtInDefaultPath() : arguments.value(general::defaultPath);
    options.writePath =
        isBuiltIn ? Engine::builtInWritePath() : arguments.value(general::writePath);
    options.productPostfix = arguments.value(general::product);
    options.language = arguments.value(general::language);
    options.catalogues = arguments.values(general::catalogues);
    return options;
}

QString validateEngine(const Arguments& arguments, const EngineOptions& options)
{
    for (const QString& directory : { options.defaultPath, options.writePath }) {
        QString error = validateDirectory(directory);
        if (!error.isEmpty())
            return error;
    }
    return validateWorker(arguments);
}

} // namespace

std::optional<Place> placeOf(const Arguments& arguments, QString* error)
{
    Place place;
    const bool hasDefault = arguments.isSet(general::defaultPath);
    if (hasDefault != arguments.isSet(general::writePath)) {
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
