#pragma once

// How this module logs. A file that includes this header logs with the stock macros and the logger
// below; each logging function names itself in a local constant `signature` first:
//
//     static constexpr char signature[] = "void CMSettingsWorker::on_writeTimer_timeout()";
//     LOG4CPLUS_INFO(logger, "written file: " << path);
//
// A text is built only when its level is on.

#include "api/core/tulo.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

// The file and function of a record are fixed texts: tools match them, whatever the compiler
// prints for a signature and wherever the sources were built.
#undef LOG4CPLUS_MACRO_FILE
#define LOG4CPLUS_MACRO_FILE() "src/modules/settings/cm_settings"
#undef LOG4CPLUS_MACRO_FUNCTION
#define LOG4CPLUS_MACRO_FUNCTION() signature

/// The TRACE record with which an operation begins; `arguments` is what is streamed after the
/// function's short name.
#define CM_SETTINGS_ENTER(arguments)                                                               \
    LOG4CPLUS_TRACE(logger,                                                                        \
                    "Enter " << dbglog_scopedFunction(signature, "CMSettingsWorker") << ": "       \
                             << arguments)
