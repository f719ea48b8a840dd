#pragma once

#include <tulo/settings.h>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>
#include <utility>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Paths of the default tree that the contract is about.
// ---------------------------------------------------------------------------------------------

inline const QString audio = QStringLiteral("/settings/audio");
inline const QString volume = QStringLiteral("/settings/audio/volume");
inline const QString gain = QStringLiteral("/settings/audio/gain");
inline const QString loudness = QStringLiteral("/settings/audio/loudness");
inline const QString mode = QStringLiteral("/settings/audio/mode");
inline const QString sources = QStringLiteral("/settings/audio/sources");
inline const QString serial = QStringLiteral("/settings/serial");
inline const QString secret = QStringLiteral("/settings/secret");
inline const QString secondPreset = QStringLiteral("/settings/presets/two");
// Without constraints or a value: it takes what comes.
inline const QString token = QStringLiteral("/settings/token");

inline const QStringList valueRole { QStringLiteral("value") };

// ---------------------------------------------------------------------------------------------
// Answers as text, types included: "x 5" is a qlonglong, "d 5" a double. Timestamps, which differ
// from run to run, are "*".
// ---------------------------------------------------------------------------------------------

QString shown(const QVariant& value);
QString shown(const QVariantMap& map);
/// "NAME: message" and the path, unless that is in the message.
QString shown(const Error& error);
QString shown(const Change& change);
QString shown(const Node& node);
QString shown(const Row& row);
QString shown(const Rows& rows);
/// "STATE LAYER ROLE VALUE NAME:LINE:COLUMN: REASON", without what there is not.
QString shown(const RoleOrigin& origin);
QString shown(const QString& text);
QString shown(int number);
QString shown(const QStringList& texts);
QString shown(const Event& event);

template<typename Entry>
QString shown(const QVector<Entry>& entries)
{
    QStringList texts;
    for (const Entry& entry : entries)
        texts.append(shown(entry));
    return texts.join(QStringLiteral("; "));
}

/// What a change that stored `value`, as shown, answers.
QString storedAs(const QString& value);

/// The answer, or the error, when it has come.
template<typename T>
QString answerOf(const Reply<T>& reply)
{
    return reply.wait() ? shown(reply.value()) : shown(reply.error());
}

/// What a watch tells, in order.
class EventLog
{
public:
    explicit EventLog(std::unique_ptr<Watch> watch)
        : m_watch(std::move(watch))
    {
        QObject::connect(m_watch.get(), &Watch::changed, m_watch.get(),
                         [this](const Event& event) { texts.append(shown(event)); });
        QObject::connect(m_watch.get(), &Watch::failed, m_watch.get(),
                         [this](const Error& error) { texts.append(shown(error)); });
    }

    Watch* watch() const { return m_watch.get(); }
    void destroyWatch() { m_watch.reset(); }

    QStringList texts;

private:
    std::unique_ptr<Watch> m_watch;
};

} // namespace tulo
