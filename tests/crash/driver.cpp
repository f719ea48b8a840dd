// Drives the built plug-in through one save, so that a test can kill the process in the middle
// of it:
//
//   crash_driver PLUGIN DEFAULT_PATH WRITE_PATH STEP...
//
//   PATH=NUMBER   sets the value of the setting PATH, with the time stamp NUMBER
//   write         has the write timer fire
//   flush         activates the flush action
//   begin, end    bound what a test looks at, each by a call of getppid
//
// Prints each step when it is done.

#include "api/core/model/cmworker.h"
#include "api/core/model/tulosettingsactions.h"
#include "api/core/tuloroles.h"

#include <QCoreApplication>
#include <QLibrary>
#include <QStringList>

#include <cstdio>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <unistd.h>

namespace {

bool set(CMWorker* worker, const QString& path, const QVariantHash& roles)
{
    const auto reply = CMReply<QVariant>::create();
    worker->setDataRequest(CMSetDataRequest(CMPath(QLatin1String("/settings") + path),
                                            TuloRoles::SetRoles(), roles, reply));
    return reply.isFinished() && reply.error().name().isEmpty();
}

bool flush(CMWorker* worker)
{
    const auto reply = CMReply<QVariant>::create();
    worker->setDataRequest(
        CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));
    return reply.isFinished();
}

bool perform(CMWorker* worker, const QString& step)
{
    if (step == QLatin1String("begin") || step == QLatin1String("end"))
        return ::getppid() > 0;
    if (step == QLatin1String("write"))
        return QMetaObject::invokeMethod(worker, "on_writeTimer_timeout", Qt::DirectConnection);
    if (step == QLatin1String("flush"))
        return flush(worker);
    const int equals = step.indexOf(QLatin1Char('='));
    const qlonglong number = step.mid(equals + 1).toLongLong();
    TuloRoles roles;
    roles.setValue(TuloValue::of(TuloValue::Int(), number));
    roles.setTimestamp(number);
    return set(worker, step.left(equals), roles.__variant().toHash());
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4)
        return 2;
    // A logger without an appender complains on standard error.
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));

    auto* const create =
        reinterpret_cast<CMWorkerCreate*>(QLibrary(arguments.at(1)).resolve("worker_create"));
    if (create == nullptr)
        return 2;
    CMWorker* const worker = create(nullptr,
                                    { { QStringLiteral("default_path"), arguments.at(2) },
                                      { QStringLiteral("write_path"), arguments.at(3) } });
    for (const QString& step : arguments.mid(4)) {
        if (!perform(worker, step))
            return 1;
        std::printf("%s\n", qPrintable(step));
        std::fflush(stdout);
    }
    // Ends like a process that crashes: nothing of the worker is torn down.
    ::_exit(0);
}
