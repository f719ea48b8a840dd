#include "trees/treesync.h"

#include "trees/uniquefd.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tulo {

namespace {

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Zero, or the system's error.
int syncDirectory(int directory)
{
    if (::syncfs(directory) != 0)
        return errno;
    // ext4 forgets to report a journal that failed just before it was waited for, until the next
    // change finds it. This one changes nothing: the attribute does not exist.
    if (::fremovexattr(directory, "user.tulo.none") != 0 && (errno == EROFS || errno == EIO))
        return errno;
    // A file system that went read-only because of an error confirms that there is nothing to do.
    struct statvfs fileSystem = {};
    if (::fstatvfs(directory, &fileSystem) != 0)
        return errno;
    return (fileSystem.f_flag & ST_RDONLY) != 0 ? EROFS : 0;
}

} // namespace

/// One sync; shared with its thread, which may outlive the object that started it.
struct TreeSync::Run
{
    std::mutex mutex;
    std::condition_variable ended;
    // Under the mutex.
    TreeSync* owner = nullptr; ///< null once the object is gone
    bool hasEnded = false;
    int error = 0;
};

TreeSync::~TreeSync()
{
    if (m_run) {
        const std::lock_guard<std::mutex> locker(m_run->mutex);
        m_run->owner = nullptr;
    }
}

void TreeSync::start(int directory)
{
    // A copy for the thread: it shares the record of which errors were reported.
    UniqueFd copy(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
    const int error = errno;
    m_run = std::make_shared<Run>();
    m_run->owner = this;
    const auto end = [](const std::shared_ptr<Run>& run, int result) {
        const std::lock_guard<std::mutex> locker(run->mutex);
        run->hasEnded = true;
        run->error = result;
        run->ended.notify_all();
        if (run->owner != nullptr)
            QMetaObject::invokeMethod(run->owner, &TreeSync::on_run_ended, Qt::QueuedConnection);
    };
    if (!copy) {
        end(m_run, error);
        return;
    }
    try {
        std::thread([run = m_run, copy = std::move(copy), end]() mutable {
            const int result = syncDirectory(copy.get());
            // Before the end is known, so that the tree can be unmounted then.
            copy.reset();
            end(run, result);
        }).detach();
    } catch (const std::system_error& failure) {
        end(m_run, failure.code().value());
    }
}

bool TreeSync::isRunning() const
{
    return m_run != nullptr;
}

bool TreeSync::wait(int milliseconds)
{
    if (!m_run)
        return true;
    {
        std::unique_lock<std::mutex> locker(m_run->mutex);
        const auto hasEnded = [this] {
            return m_run->hasEnded;
        };
        if (!m_run->ended.wait_for(locker, std::chrono::milliseconds(milliseconds), hasEnded))
            return false;
    }
    on_run_ended();
    return true;
}

void TreeSync::on_run_ended()
{
    // An event of a run that wait() has seen the end of.
    if (!m_run)
        return;
    int error = 0;
    {
        const std::lock_guard<std::mutex> locker(m_run->mutex);
        if (!m_run->hasEnded)
            return;
        error = m_run->error;
    }
    m_run.reset();
    emit finished(error == 0 ? QString() : systemText(error));
}

} // namespace tulo
