#include "tulo-cm/linereader.h"

#include "tulo-cm/signalhandler.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace tulo {
namespace {

bool isReadable()
{
    pollfd input { STDIN_FILENO, POLLIN, 0 };
    return ::poll(&input, 1, 0) > 0;
}

} // namespace

void waitForInput(const std::function<void()>& afterEvents)
{
    // Only where there is nothing to read yet: the notifier would take a turn of the event loop.
    if (isReadable())
        return;
    QSocketNotifier notifier(STDIN_FILENO, QSocketNotifier::Read);
    bool hasMore = false;
    QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [&] {
        notifier.setEnabled(false);
        hasMore = true;
    });
    serveEvents(-1, [&] {
        afterEvents();
        return hasMore;
    });
}

bool LineReader::next(QByteArray* line)
{
    // Events have their turn between two lines, however fast these come.
    QCoreApplication::processEvents();
    while (!m_buffer.contains('\n') && !m_ended && !SignalHandler::isEndRequested()) {
        waitForInput();
        if (!SignalHandler::isEndRequested())
            read();
    }
    if (SignalHandler::isEndRequested() || m_buffer.isEmpty())
        return false;
    // The last line needs no end.
    const int end = m_buffer.indexOf('\n');
    const int length = end < 0 ? m_buffer.size() : end;
    *line = m_buffer.left(length);
    m_buffer.remove(0, length + 1);
    return true;
}

void LineReader::read()
{
    char bytes[64 * 1024];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count > 0)
        m_buffer.append(bytes, int(count));
    else if (count == 0 || (errno != EINTR && errno != EAGAIN))
        m_ended = true;
}

} // namespace tulo
