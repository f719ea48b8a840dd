#pragma once

#include <QByteArray>

#include <functional>

namespace tulo {

/// Serves events until standard input can be read or a signal to end comes. `afterEvents` runs
/// after each turn of the event loop.
void waitForInput(const std::function<void()>& afterEvents = [] {});

/// Standard input, line by line, while events are served.
class LineReader
{
public:
    /// Waits for the next line; false at the end of the input or when a signal came.
    bool next(QByteArray* line);

private:
    void read();

    QByteArray m_buffer;
    bool m_ended = false;
};

} // namespace tulo
