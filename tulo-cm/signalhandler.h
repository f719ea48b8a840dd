#pragma once

#include <QObject>

#include <functional>

namespace tulo {

/// Turns SIGINT, SIGTERM and SIGHUP (the terminal was closed) into an orderly end: the event loop
/// wakes up for them, and long operations check isEndRequested() from time to time. A SIGHUP that
/// was ignored from the start, as nohup does, stays ignored. One object at a time, on the main
/// thread; without one these signals end the process as usual.
class SignalHandler : public QObject
{
    Q_OBJECT

public:
    SignalHandler();
    ~SignalHandler() override;

    /// True when a signal to end came since the object was made, or since forget(); false without
    /// an object.
    static bool isEndRequested();
    /// From now on a SIGINT is an interruption: it counts as a signal to end until it is taken.
    /// SIGQUIT does nothing.
    static void setInteractive();
    /// Tells whether an interruption came since the last call.
    [[nodiscard]] static bool takeInterruption();
    /// Tells whether the terminal got another size, or the process went on after having been
    /// stopped, since the last call; only after setInteractive().
    [[nodiscard]] static bool takeTerminalChange();
    /// Ends what setInteractive() began. From now on only the next SIGINT or SIGTERM counts: no
    /// terminal can be closed twice.
    static void forget();
    /// Ends the process by the signal that came, as if there had been no object.
    [[noreturn]] static void endProcess();
};

/// What a signal that ends the process, or its SignalHandler, writes to standard output or error
/// first, because the terminal shows something that has to go. Null for nothing. `bytes` lives on.
void writeOnSignal(int descriptor, const char* bytes);

/// Serves events for `milliseconds` (-1: without limit), until a signal comes or until `ended`
/// returns true, which is asked after each turn of the event loop.
void serveEvents(int milliseconds, const std::function<bool()>& ended);

} // namespace tulo
