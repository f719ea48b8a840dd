#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// How a program ended.
struct TuloProcessResult
{
    int returnCode = 0; ///< 0 is success; see TuloProcessHandler::startSync()
    QByteArray output; ///< both streams, in the order in which they were written
};

/// Runs other programs.
class TuloProcessHandler
{
public:
    /// Runs `program` (looked up in PATH, no shell) and blocks the calling thread until it has
    /// ended or `timeout` milliseconds have passed since the call (-1: no limit), the start of the
    /// program included; no event loop runs meanwhile. The program's standard input is empty.
    ///
    /// The return code is the program's own, -1 when it cannot be started, -2 when it was killed
    /// at the time-out (its end is awaited for at most a second more), 128 + the signal's number
    /// when it crashed. With -1 the output is the reason. A process that ignores SIGCHLD cannot
    /// learn how the program ended; that is -1, too.
    static TuloProcessResult startSync(const QString& program, const QStringList& arguments,
                                       int timeout);
};
