#pragma once

#include "tests/support/childprocess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

/// Runs the event loop until `condition` holds; false when it does not in time.
template<typename Condition>
[[nodiscard]] bool waitUntil(Condition condition)
{
    const QDeadlineTimer deadline(ChildProcess::waitMs);
    // Again and again: a single one may fire a moment before the deadline.
    constexpr int wakeMs = 1000;
    QTimer wake;
    wake.start(wakeMs);
    while (!condition() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return condition();
}
