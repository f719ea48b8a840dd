#pragma once

#include "output.h"
#include "session.h"

#include "engine/engine.h"

#include <QString>

#include <functional>

namespace tulo {

/// What `serve` needs to know beside the engine's own options.
struct ServeOptions
{
    EngineOptions engine;
    QString bus; ///< "system", "session" or an address
    /// Reads the log configuration again.
    std::function<Failure()> configureLogging;
};

/// Hosts the settings on a bus until SIGINT or SIGTERM, then takes no more calls, flushes and
/// ends. SIGHUP has the log configuration read again. Tells the service manager when it is ready
/// and when it stops, if one asks. Returns the exit code.
int serve(const ServeOptions& options, Output& output);

} // namespace tulo
