#pragma once

#include "remote/servicelink.h"

#include <tulo/settings.h>

#include <QObject>
#include <QSet>
#include <QString>

namespace tulo {

/// The match rules on the bus for the watches of a program: one or two for each watched path as
/// long as these are few, else one for everything that the service announces.
class Subscriptions : public QObject
{
    Q_OBJECT

public:
    /// A bus allows a connection 512 rules; more than a few cost each message of the bus.
    static constexpr int maximumPathRules = 6;

    explicit Subscriptions(ServiceLink& link);

    void add(Watch* watch);
    void remove(Watch* watch);
    /// Sends the bus what has changed since the last time. What is called after this sees the
    /// state after the rules are there.
    void update();
    /// Adds the rules to a new connection.
    void renew();

signals:
    /// The bus refused the rule for this watch.
    void failed(tulo::Watch* watch, const tulo::Error& error);

private:
    QSet<QString> wantedRules() const;
    void on_rule_refused(const QString& rule, const Error& error);

    ServiceLink& m_link;
    QSet<Watch*> m_watches;
    QSet<QString> m_rules; ///< what the bus has
    bool m_isChanged = false;
};

} // namespace tulo
