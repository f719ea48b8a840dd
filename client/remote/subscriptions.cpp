#include "remote/subscriptions.h"

#include <QStringList>

#include <algorithm>

namespace tulo {
namespace {

// What a bus takes, in bytes.
constexpr int maximumRuleBytes = 1024;

QString broadRule()
{
    return QStringLiteral("type='signal',sender='%1',path='%2',interface='%3'")
        .arg(QLatin1String(wire::busName), QLatin1String(wire::objectPath),
             QLatin1String(wire::readInterface));
}

QString pathRule(const char* key, const QString& path)
{
    // An apostrophe ends the text and cannot be written within.
    QString quoted = path;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QStringLiteral("%1,%2='%3'").arg(broadRule(), QLatin1String(key), quoted);
}

QStringList rulesOf(const Watch& watch)
{
    const QLatin1Char separator('/');
    // Events name full paths.
    const QString path =
        watch.path().startsWith(separator) ? watch.path() : separator + watch.path();
    QStringList rules { pathRule("arg0", path) };
    if (watch.scope() == Watch::Scope::Tree)
        rules.append(pathRule("arg0path", path + separator));
    return rules;
}

} // namespace

Subscriptions::Subscriptions(ServiceLink& link)
    : m_link(link)
{
}

void Subscriptions::add(Watch* watch)
{
    m_watches.insert(watch);
    m_isChanged = true;
}

void Subscriptions::remove(Watch* watch)
{
    m_isChanged = m_watches.remove(watch) || m_isChanged;
}

QSet<QString> Subscriptions::wantedRules() const
{
    // Not at each change of a path around the limit.
    const bool isBroad = m_rules.contains(broadRule());
    const int maximum = isBroad ? maximumPathRules / 2 : maximumPathRules;
    QSet<QString> rules;
    for (const Watch* const watch : m_watches) {
        const QStringList ofWatch = rulesOf(*watch);
        for (const QString& rule : ofWatch) {
            rules.insert(rule);
            if (rules.size() > maximum || rule.toUtf8().size() > maximumRuleBytes)
                return { broadRule() };
        }
    }
    return rules;
}

void Subscriptions::update()
{
    if (!m_isChanged || !m_link.isConnected())
        return;
    m_isChanged = false;
    const QSet<QString> wanted = wantedRules();
    const QSet<QString> added = wanted - m_rules;
    const QSet<QString> removed = m_rules - wanted;
    m_rules = wanted;
    // In this order, so that there is a rule at every moment.
    for (const QString& rule : added) {
        m_link.callBus(addMatch, rule, [this, rule](const ServiceLink::Answer& answer) {
            if (answer.error)
                on_rule_refused(rule, answer.error);
        });
    }
    for (const QString& rule : removed)
        m_link.callBus(removeMatch, rule, [](const ServiceLink::Answer&) {});
}

void Subscriptions::renew()
{
    m_rules.clear();
    m_isChanged = true;
    update();
}

void Subscriptions::on_rule_refused(const QString& rule, const Error& error)
{
    m_rules.remove(rule);
    const bool isBroad = rule == broadRule();
    const QSet<Watch*> watches = m_watches;
    for (Watch* const watch : watches) {
        if (!isBroad && !rulesOf(*watch).contains(rule))
            continue;
        m_watches.remove(watch);
        emit failed(watch, { error.code, error.message, watch->path() });
    }
}

} // namespace tulo
