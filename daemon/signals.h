#pragma once

#include <QObject>

namespace tulo {

/// Turns SIGTERM, SIGINT and SIGHUP into Qt signals of the event loop, as long as it lives. To be
/// made before any other thread, which then has them blocked as well.
class Signals : public QObject
{
    Q_OBJECT

public:
    Signals();
    ~Signals() override;

    /// SIGTERM or SIGINT came.
    bool isEndRequested() const { return m_isEndRequested; }

signals:
    void endRequested();
    /// SIGHUP came.
    void hangUp();

private slots:
    void on_notifier_activated();

private:
    int m_descriptor = -1;
    bool m_isEndRequested = false;
};

} // namespace tulo
