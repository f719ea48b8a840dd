#pragma once

#include "wire/names.h"

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <memory>
#include <vector>

#include <systemd/sd-bus.h>

/// A connection to a bus that takes the service's name and answers as a test says, in the event
/// loop of the test.
class ScriptedService : public QObject
{
public:
    struct Unref
    {
        void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    using MessagePointer = std::unique_ptr<sd_bus_message, Unref>;
    using Script = std::function<void(sd_bus_message* call)>;

    enum class Name { Owned, None };

    /// Answers each call with the shape that its method promises.
    explicit ScriptedService(const QString& address, Name name = Name::Owned);

    QByteArray uniqueName() const;
    void takeName();
    void releaseName();

    /// What is called for each method call instead of answering it.
    Script script;
    /// The calls so far: "GetData /settings/a", "GetMany /settings/a /settings/b".
    QStringList calls;
    /// Calls whose answers are held back.
    std::vector<MessagePointer> held;

    void answer(sd_bus_message* call, const QVariantList& arguments);
    /// The same in the types of `signature`.
    void answerAs(sd_bus_message* call, const char* signature, const QVariantList& arguments);
    /// With what `write` appends to the answer.
    void answerWith(sd_bus_message* call, const std::function<int(sd_bus_message*)>& write);
    void answerEmpty(sd_bus_message* call);
    void fail(sd_bus_message* call, const char* name, const char* message);
    void hold(sd_bus_message* call);
    /// Broadcasts, or sends to one connection.
    void announce(const tulo::wire::Signal& signal, const QVariantList& arguments,
                  const QByteArray& destination = QByteArray());

    /// Asks the bus, and waits: the match rules of another connection.
    QStringList rulesOf(const QByteArray& uniqueName);

    /// What the method's answer looks like when there is nothing to say.
    static QVariantList emptyAnswer(const tulo::wire::Method& method, const QVariantList& asked);
    static QVariantList argumentsOf(sd_bus_message* message);
    static const tulo::wire::Method& methodOf(sd_bus_message* call);

private:
    void process();

    std::unique_ptr<sd_bus, Unref> m_bus;
    std::unique_ptr<QSocketNotifier> m_notifier;
};
