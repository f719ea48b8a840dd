#pragma once

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace tulo {

/// Where the service's own records go.
inline log4cplus::Logger daemonLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("tulo-settingsd"));
}

} // namespace tulo
