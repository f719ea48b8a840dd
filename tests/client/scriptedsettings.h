#pragma once

#include <tulo/settings.h>

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <utility>

/// Settings whose events and answers a test makes.
class ScriptedSettings : public tulo::Settings
{
public:
    using Settings::deliver;
    using Settings::deliverFailed;
    using Settings::deliverMissed;

    struct Listing
    {
        int first = 0;
        int last = 0;
        tulo::Promise<tulo::Rows> promise;
    };

    ~ScriptedSettings() override
    {
        const tulo::Error cancelled { tulo::ErrorCode::Cancelled, {}, {} };
        cancelAll(reads, cancelled);
        cancelAll(manyReads, cancelled);
        for (const Listing& listing : qAsConst(listings))
            listing.promise.fail(cancelled);
        cancelAll(changes, cancelled);
    }

    void deliverValue(const QString& path, const QVariant& value)
    {
        tulo::Event event;
        event.kind = tulo::Event::Kind::Value;
        event.path = path;
        event.value = value;
        deliver(event);
    }
    void deliverData(const QString& path)
    {
        tulo::Event event;
        event.path = path;
        deliver(event);
    }
    void deliverRows(const QString& path, const QString& command, int version)
    {
        tulo::Event event;
        event.kind = tulo::Event::Kind::Rows;
        event.path = path;
        event.command = command;
        event.version = version;
        deliver(event);
    }
    void setState(State state)
    {
        m_state = state;
        emit stateChanged(state);
    }

    /// What was asked since the last call, one entry a request: "get /settings/a value".
    QStringList takeLog() { return std::exchange(log, {}); }

    State state() const override { return m_state; }
    tulo::Reply<QVariantMap> get(const QString& path, const QStringList& roles) override
    {
        return ask(&reads, QStringLiteral("get %1 %2").arg(path, roles.join(QLatin1Char(','))));
    }
    tulo::Reply<QVector<tulo::Node>> getMany(const QStringList& paths,
                                             const QStringList& roles) override
    {
        return ask(&manyReads,
                   QStringLiteral("getMany %1 %2")
                       .arg(paths.join(QLatin1Char(',')), roles.join(QLatin1Char(','))));
    }
    tulo::Reply<tulo::Rows> rows(const QString& path, int first, int last,
                                 const QStringList& roles) override
    {
        log.append(QStringLiteral("rows %1 %2-%3 %4")
                       .arg(path)
                       .arg(first)
                       .arg(last)
                       .arg(roles.join(QLatin1Char(','))));
        listings.append({ first, last, {} });
        return listings.last().promise.reply();
    }
    tulo::Reply<QVector<tulo::RoleOrigin>> explain(const QString&) override
    {
        return none<QVector<tulo::RoleOrigin>>();
    }
    tulo::Reply<tulo::Change> set(const QString& path, const QVariant& value,
                                  const tulo::ChangeOptions& options) override
    {
        return ask(&changes,
                   QStringLiteral("set %1 %2%3")
                       .arg(path, value.toString(),
                            options.isDryRun ? QStringLiteral(" dry") : QString()));
    }
    tulo::Reply<tulo::Change> setRoles(const QString&, const QVariantMap&,
                                       const tulo::ChangeOptions&) override
    {
        return none<tulo::Change>();
    }
    tulo::Reply<tulo::Change> apply(const QString&, const QString&, const QVariant&,
                                    const tulo::ChangeOptions&) override
    {
        return none<tulo::Change>();
    }
    tulo::Reply<QVector<tulo::Change>> setMany(const QVector<tulo::Assignment>&,
                                               const tulo::ChangeOptions&) override
    {
        return none<QVector<tulo::Change>>();
    }
    tulo::Reply<QStringList> reset(const QStringList&, const tulo::ResetOptions&) override
    {
        return none<QStringList>();
    }
    tulo::Reply<int> flush() override { return none<int>(); }
    tulo::Reply<bool> dropCache() override { return none<bool>(); }
    tulo::Reply<tulo::Status> status() override { return none<tulo::Status>(); }
    tulo::Reply<QString> treeDigest() override { return none<QString>(); }
    tulo::Reply<QVariantMap> statistics() override { return none<QVariantMap>(); }
    tulo::Reply<QStringList> unsavedPaths(int) override { return none<QStringList>(); }

    QStringList log; ///< of watches that came and went, and of requests
    QVector<tulo::Watch*> watches;
    // The requests that a test has not answered.
    QVector<tulo::Promise<QVariantMap>> reads;
    QVector<tulo::Promise<QVector<tulo::Node>>> manyReads;
    QVector<Listing> listings;
    QVector<tulo::Promise<tulo::Change>> changes;

protected:
    void watchAdded(tulo::Watch* watch) override
    {
        log.append(QLatin1Char('+') + watch->path());
        watches.append(watch);
    }
    void watchRemoved(tulo::Watch* watch) override
    {
        log.append(QLatin1Char('-') + watch->path());
        watches.removeOne(watch);
    }

private:
    template<typename T>
    tulo::Reply<T> ask(QVector<tulo::Promise<T>>* promises, const QString& request)
    {
        log.append(request);
        promises->append(tulo::Promise<T>());
        return promises->last().reply();
    }
    template<typename T>
    static tulo::Reply<T> none()
    {
        return tulo::Promise<T>().reply();
    }
    template<typename T>
    static void cancelAll(const QVector<tulo::Promise<T>>& promises, const tulo::Error& error)
    {
        for (const auto& promise : promises)
            promise.fail(error);
    }

    State m_state = State::Ready;
};
