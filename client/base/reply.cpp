#include "tulo/reply.h"

#include <QEventLoop>

namespace tulo {

void ReplyState::fail(const Error& error)
{
    if (m_isFinished)
        return;
    m_error = error;
    finish();
}

void ReplyState::wait()
{
    if (m_isFinished)
        return;
    QEventLoop loop;
    connect(this, &ReplyState::finished, &loop, &QEventLoop::quit);
    loop.exec();
}

void ReplyState::finish()
{
    m_isFinished = true;
    emit finished();
}

} // namespace tulo
