#pragma once

#include "commandline.h"
#include "output.h"
#include "session.h"
#include "watches.h"

namespace tulo {

class BusSession;

/// What a command works with. The same for all commands of one process.
struct Context
{
    Output& output;
    Session* session; ///< null for a command that needs none
    BusSession* service; ///< the same when it is the service, otherwise null
    Watches* watches; ///< null where nothing can be watched
    TreeDirectories trees; ///< empty names where the session has to be asked
    bool inShell = false;
    bool quit = false; ///< the shell ends after this line
};

// Each does what its help says, prints results and failures, and returns an exit code: that of
// the first failure where there are several.

// commands_read.cpp
int runGet(Context& context, const Arguments& arguments);
int runLs(Context& context, const Arguments& arguments);
int runTree(Context& context, const Arguments& arguments);

// commands_change.cpp
int runSet(Context& context, const Arguments& arguments);
int runOp(Context& context, const Arguments& arguments);
int runFlush(Context& context, const Arguments& arguments);
int runDropCache(Context& context, const Arguments& arguments);

// commands_watch.cpp
int runWatch(Context& context, const Arguments& arguments);
int runUnwatch(Context& context, const Arguments& arguments);
int runWait(Context& context, const Arguments& arguments);

// commands_check.cpp
int runCheck(Context& context, const Arguments& arguments);

// commands_status.cpp
int runStatus(Context& context, const Arguments& arguments);

// commands_help.cpp
int runHelp(Context& context, const Arguments& arguments);
/// For the option --help, with a command or without.
int runHelpOption(Context& context, const Arguments& arguments);

// shell.cpp
int runShell(Context& context, const Arguments& arguments);
int runQuit(Context& context, const Arguments& arguments);

/// The exit code of several steps: that of the first failure.
inline int firstFailure(int earlier, int later)
{
    return earlier != Done ? earlier : later;
}

} // namespace tulo
