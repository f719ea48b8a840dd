#pragma once

#include "tulo-cm/command.h"

#include "engine/engine.h"

#include <QString>

#include <optional>

namespace tulo {

/// Where the settings are that a command works on.
struct Place
{
    enum class Kind {
        OwnProcess, ///< two directories, served by this process
        Service ///< wherever a service on a bus has them
    };

    Kind kind = Kind::Service;
    EngineOptions engine; ///< for this process
    QString bus; ///< "system", "session" or an address
    QString host; ///< another device, to whose system bus ssh leads; empty for this one
};

/// The place that the options name. None when they do not fit together or name what is not there;
/// `error` says what is wrong then. Opens nothing.
std::optional<Place> placeOf(const Arguments& arguments, QString* error);

} // namespace tulo
