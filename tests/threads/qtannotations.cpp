// Tells ThreadSanitizer what happens before what in Qt, whose library is not instrumented: its
// mutexes, wait conditions and queued events would be invisible, and everything that they guard
// a race. These definitions take the place of Qt's for our code, annotate, and call Qt's own.
//
// Nothing is hidden by it: an access that none of these orders is still reported, which the
// program with the planted race shows.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

namespace {

template<typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static auto* const real = next<void(QMutex*)>("_ZN6QMutex4lockEv");
    real(this);
    __tsan_acquire(this);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static auto* const real = next<bool(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    const bool locked = real(this, timeout);
    if (locked)
        __tsan_acquire(this);
    return locked;
}

void QMutex::unlock() noexcept
{
    static auto* const real = next<void(QMutex*)>("_ZN6QMutex6unlockEv");
    __tsan_release(this);
    real(this);
}

bool QWaitCondition::wait(QMutex* mutex, QDeadlineTimer deadline)
{
    static auto* const real = next<bool(QWaitCondition*, QMutex*, QDeadlineTimer)>(
        "_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer");
    __tsan_release(mutex);
    const bool woken = real(this, mutex, deadline);
    __tsan_acquire(mutex);
    return woken;
}

// A call that may be queued is ordered before the event that makes it, by its receiver. The
// filter below meets every event of the main thread, where the workers of these programs live.

bool QMetaObject::invokeMethodImpl(QObject* object, QtPrivate::QSlotObjectBase* slot,
                                   Qt::ConnectionType type, void* result)
{
    static auto* const real =
        next<bool(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*)>(
            "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14"
            "ConnectionTypeEPv");
    __tsan_release(object);
    return real(object, slot, type, result);
}

// For signals that an object sends to itself, as the worker's two do.
void QMetaObject::activate(QObject* sender, const QMetaObject* meta, int signal, void** arguments)
{
    static auto* const real = next<void(QObject*, const QMetaObject*, int, void**)>(
        "_ZN11QMetaObject8activateEP7QObjectPKS_iPPv");
    __tsan_release(sender);
    real(sender, meta, signal, arguments);
}

namespace {

class EventAnnotator : public QObject
{
public:
    bool eventFilter(QObject* receiver, QEvent*) override
    {
        __tsan_acquire(receiver);
        return false;
    }
};

void annotateEvents()
{
    static EventAnnotator annotator;
    QCoreApplication::instance()->installEventFilter(&annotator);
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(annotateEvents)
