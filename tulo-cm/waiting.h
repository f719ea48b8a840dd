#pragma once

#include "tulo-cm/signalhandler.h"

#include <tulo/reply.h>

namespace tulo {

/// Serves events until `reply` has finished. A signal to end cancels it at once.
template<typename T>
Reply<T> finished(const Reply<T>& reply)
{
    serveEvents(-1, [&reply] { return reply.isFinished(); });
    // Does nothing to a reply that has finished.
    reply.cancel();
    return reply;
}

} // namespace tulo
