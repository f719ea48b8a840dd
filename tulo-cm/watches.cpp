#include "watches.h"

#include "api/core/tuloroles.h"

namespace tulo {

Watches::Watches(Session& session, Output& output)
    : m_session(session)
    , m_output(output)
{
    m_session.setEventHandler([this](const SessionEvent& event) {
        print(event);
        count(event.path);
    });
}

Watches::~Watches()
{
    m_session.setEventHandler({});
}

Failure Watches::add(const QStringList& paths, int count)
{
    const auto left = std::make_shared<int>(count);
    for (const QString& path : paths) {
        Failure failure = m_session.watch(path);
        if (failure)
            return failure;
        m_left.insert(path, left);
    }
    return {};
}

void Watches::remove(const QString& path)
{
    m_session.unwatch(path);
    m_left.remove(path);
}

void Watches::removeAll()
{
    const QStringList paths = m_left.keys();
    for (const QString& path : paths)
        remove(path);
}

Failure Watches::printCurrent(const QString& path)
{
    const Answer<QVariantHash> node =
        m_session.getData(path, { TuloRoles::Type(), TuloRoles::Value() });
    if (node.failure)
        return node.failure;
    SessionEvent event;
    event.path = path;
    if (node.value.value(TuloRoles::Type()).toInt() == TuloRolesType::Directory) {
        // A range that ends before it begins: the version without any row.
        const Answer<RowPage> rows = m_session.getRows(path, 1, 0, {});
        if (rows.failure)
            return rows.failure;
        event.kind = SessionEvent::Kind::Rows;
        event.rowsVersion = rows.value.version;
    } else {
        event.kind = SessionEvent::Kind::Value;
        event.value = node.value.value(TuloRoles::Value()).toHash();
    }
    print(event);
    return {};
}

void Watches::print(const SessionEvent& event)
{
    const QString value = QStringLiteral("value");
    const QString data = QStringLiteral("data");
    const QString rows = QStringLiteral("rows");
    const QString kind = event.kind == SessionEvent::Kind::Value ? value
        : event.kind == SessionEvent::Kind::Rows                 ? rows
                                                                 : data;
    if (m_output.isJson()) {
        QVariantHash object { { QStringLiteral("event"), kind },
                              { QStringLiteral("path"), event.path } };
        if (event.kind == SessionEvent::Kind::Value)
            object.insert(value, event.value);
        if (event.kind == SessionEvent::Kind::Rows) {
            object.insert(QStringLiteral("command"), event.command);
            object.insert(QStringLiteral("rowsVersion"), event.rowsVersion);
        }
        m_output.object(object);
        return;
    }
    QString line = kind + QLatin1Char(' ') + event.path;
    if (event.kind == SessionEvent::Kind::Value)
        line += QLatin1Char(' ') + shownInCell(event.value);
    if (!event.command.isEmpty())
        line += QLatin1Char(' ') + event.command;
    m_output.line(line);
    m_output.flush();
}

void Watches::count(const QString& path)
{
    const std::shared_ptr<int> left = m_left.value(path);
    if (!left || *left == 0 || --*left > 0)
        return;
    const QStringList paths = m_left.keys(left);
    for (const QString& one : paths)
        remove(one);
}

} // namespace tulo
