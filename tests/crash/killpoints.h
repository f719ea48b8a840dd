#pragma once

#include "tests/support/childprocess.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

// Programs that are killed, by strace, right before one of their system calls.

namespace tulo {

/// One system call of the first thread, by its name and how often it was called up to then.
struct KillPoint
{
    QString call;
    int count = 0;
    bool isInChange = false; ///< while there is a journal, and some calls later
};

inline bool canTrace()
{
    return ChildProcess::run(QStringLiteral("strace"), { QStringLiteral("true") }).exitCode == 0;
}

/// What tells our programs where the trees are.
inline QStringList optionsOf(const TemporaryTree& tree)
{
    return { QStringLiteral("--default-path"), tree.defaultPath(), QStringLiteral("--write-path"),
             tree.writePath() };
}

/// A program under strace, which does what `options` say.
inline std::unique_ptr<ChildProcess> traced(const QStringList& command, const QStringList& options)
{
    auto child = std::make_unique<ChildProcess>(
        QStringLiteral("strace"), QStringList { QStringLiteral("-f") } + options + command);
    // The leak checker cannot work in a process that is traced already.
    child->setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
    // The same order of files in every run.
    child->setVariable(QStringLiteral("QT_HASH_SEED"), QStringLiteral("0"));
    return child;
}

inline QStringList killing(const KillPoint& point)
{
    return { QStringLiteral("-o"),
             QStringLiteral("/dev/null"),
             QStringLiteral("-e"),
             QStringLiteral("trace=") + point.call,
             QStringLiteral("-e"),
             QStringLiteral("inject=%1:signal=KILL:when=%2").arg(point.call).arg(point.count) };
}

/// Runs `command` to its end. The name of the trace's file, beside the tree; empty when the command
/// failed.
inline QString traceOf(const TemporaryTree& tree, const QStringList& command)
{
    const QString traceFile = tree.path() + QLatin1String("/trace");
    const auto whole = traced(command, { QStringLiteral("-o"), traceFile });
    return whole->start() && whole->finish().exitCode == 0 ? traceFile : QString();
}

struct TracedCall
{
    QString name;
    int count = 0; ///< how often it was called up to then
    QByteArray line; ///< of the trace
};

/// The system calls of the first thread: strace counts those of each thread by itself, and the
/// logging library's threads start when they like.
inline std::vector<TracedCall> callsOfFirstThread(const QString& traceFile)
{
    const QRegularExpression pattern(QStringLiteral("^(\\d+) +(\\w+)\\("));
    QFile trace(traceFile);
    if (!trace.open(QIODevice::ReadOnly))
        return {};
    QString firstThread;
    QMap<QString, int> counts;
    std::vector<TracedCall> calls;
    const QList<QByteArray> lines = trace.readAll().split('\n');
    for (const QByteArray& line : lines) {
        const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(line));
        if (!match.hasMatch())
            continue;
        if (firstThread.isEmpty())
            firstThread = match.captured(1);
        if (match.captured(1) == firstThread)
            calls.push_back({ match.captured(2), ++counts[match.captured(2)], line });
    }
    return calls;
}

/// The system calls of a trace from the first that names the owner's lock. The event loop waits
/// and the heap grows differently in each run.
inline std::vector<KillPoint> killPoints(const QString& traceFile)
{
    static const QStringList ignored { QStringLiteral("futex"),  QStringLiteral("poll"),
                                       QStringLiteral("ppoll"),  QStringLiteral("brk"),
                                       QStringLiteral("mmap"),   QStringLiteral("munmap"),
                                       QStringLiteral("madvise") };
    std::vector<KillPoint> points;
    int callsInChange = 0;
    for (const TracedCall& call : callsOfFirstThread(traceFile)) {
        const bool isOfJournal =
            call.line.contains("\".tulo-cm.journal") && !call.line.contains("ENOENT");
        if (isOfJournal)
            callsInChange =
                call.name == QLatin1String("unlinkat") ? 10 : std::numeric_limits<int>::max();
        const bool isAfterStart = !points.empty() || call.line.contains(".tulo-cm.lock");
        if (isAfterStart && !ignored.contains(call.name))
            points.push_back({ call.name, call.count, callsInChange > 0 });
        callsInChange = std::max(callsInChange - 1, 0);
    }
    return points;
}

/// Of those outside of the change only some, unless in full.
inline std::vector<KillPoint> chosen(const std::vector<KillPoint>& points)
{
    const int stride = repeats(10, 1);
    std::vector<KillPoint> chosen;
    for (int i = 0; i < int(points.size()); ++i) {
        const KillPoint& point = points[std::size_t(i)];
        if (point.isInChange || i % stride == 0)
            chosen.push_back(point);
    }
    return chosen;
}

/// Kills `command` at each of the points, on a new tree each time, and has `verify` look at what is
/// left.
inline void killAtEach(const std::vector<KillPoint>& points,
                       const std::function<void(const TemporaryTree&)>& prepareTree,
                       const std::function<QStringList(const TemporaryTree&)>& command,
                       const std::function<void(const TemporaryTree&, bool isKilled)>& verify)
{
    struct Victim
    {
        KillPoint point;
        std::unique_ptr<TemporaryTree> tree;
        std::unique_ptr<ChildProcess> child;
    };
    int killed = 0;
    const auto finish = [&](const Victim& victim) {
        const ChildResult result = victim.child->finish();
        const QByteArray place =
            victim.point.call.toUtf8() + ' ' + QByteArray::number(victim.point.count);
        const bool isKilled = result.signal == SIGKILL;
        killed += int(isKilled);
        QVERIFY2(isKilled || result.exitCode == 0, place + ": " + result.standardError);
        verify(*victim.tree, isKilled);
        if (QTest::currentTestFailed())
            qWarning("killed at %s", place.constData());
    };
    // Two at a time.
    std::unique_ptr<Victim> running;
    for (const KillPoint& point : points) {
        auto victim = std::make_unique<Victim>();
        victim->point = point;
        victim->tree = std::make_unique<TemporaryTree>();
        prepareTree(*victim->tree);
        victim->child = traced(command(*victim->tree), killing(point));
        QVERIFY(victim->child->start());
        if (running)
            finish(*running);
        if (QTest::currentTestFailed())
            return;
        running = std::move(victim);
    }
    if (running)
        finish(*running);
    qInfo("killed at %d of %d system calls", killed, int(points.size()));
    // A call of the event loop that does not come again in the next run is not a place to kill at.
    QVERIFY(killed > 0 && killed >= int(points.size()) * 9 / 10);
}

/// Runs `command` to its end, then kills it at chosen system calls of that process.
inline void killAtItsCalls(const std::function<void(const TemporaryTree&)>& prepareTree,
                           const std::function<QStringList(const TemporaryTree&)>& command,
                           const std::function<void(const TemporaryTree&, bool isKilled)>& verify)
{
    const TemporaryTree reference;
    prepareTree(reference);
    const QString traceFile = traceOf(reference, command(reference));
    QVERIFY(!traceFile.isEmpty());
    verify(reference, false);
    if (!QTest::currentTestFailed())
        killAtEach(chosen(killPoints(traceFile)), prepareTree, command, verify);
}

} // namespace tulo
