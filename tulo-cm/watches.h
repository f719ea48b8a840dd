#pragma once

#include "output.h"
#include "session.h"

#include <QHash>
#include <QStringList>

#include <memory>

namespace tulo {

/// The paths whose changes are printed, and the printing. An event is printed at once, also in
/// the middle of another command.
class Watches
{
public:
    /// Both outlive the watches.
    Watches(Session& session, Output& output);
    ~Watches();
    Q_DISABLE_COPY(Watches)

    /// Watches `paths` for `count` events together (0: without limit). A path that is watched
    /// already is taken over.
    Failure add(const QStringList& paths, int count);
    void remove(const QString& path);
    void removeAll();
    bool isEmpty() const { return m_left.isEmpty(); }

    /// Prints what there is now as if it had just changed.
    Failure printCurrent(const QString& path);

private:
    void print(const SessionEvent& event);
    void count(const QString& path);

    Session& m_session;
    Output& m_output;
    QHash<QString, std::shared_ptr<int>> m_left; ///< by path; shared by those added together
};

} // namespace tulo
