#pragma once

#include "tulo/error.h"
#include "tulo/export.h"
#include "tulo/reply.h"
#include "tulo/settings.h"

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>

namespace tulo {

class RemoteSettingsPrivate;

/// The settings that the service on a D-Bus bus serves.
///
/// Connects by itself, and again when the service or the bus was gone; the watches then announce
/// missed(). Nothing blocks, with one exception: connecting to an address of another machine by TCP
/// looks its name up.
///
/// A request that is made before the connection is there waits for it, and starts the service where
/// the bus can do that. get() calls of one turn of the event loop go to the service together. A
/// request fails with Unavailable when the bus or the service cannot be reached, when the bus does
/// not permit it, or when the service does not answer within 90 seconds.
class TULO_SETTINGS_EXPORT RemoteSettings : public Settings
{
    Q_OBJECT

public:
    /// `bus` is "system", "session" or the address of a bus.
    explicit RemoteSettings(const QString& bus = QStringLiteral("system"));
    ~RemoteSettings() override;

    /// The address of the system bus of the machine `host`, such as "user@device", over ssh. Empty,
    /// with an error, when that is not the name of a machine.
    static QString addressOfHost(const QString& host, Error* error);

    State state() const override;
    /// Why the state is Away, in one line; else empty.
    QString problem() const;

    Reply<QVariantMap> get(const QString& path, const QStringList& roles) override;
    Reply<QVector<Node>> getMany(const QStringList& paths, const QStringList& roles) override;
    Reply<Rows> rows(const QString& path, int first, int last, const QStringList& roles) override;
    Reply<QVector<RoleOrigin>> explain(const QString& path) override;
    Reply<Change> set(const QString& path, const QVariant& value,
                      const ChangeOptions& options = {}) override;
    Reply<Change> setRoles(const QString& path, const QVariantMap& roles,
                           const ChangeOptions& options = {}) override;
    Reply<Change> apply(const QString& path, const QString& verb, const QVariant& operand,
                        const ChangeOptions& options = {}) override;
    Reply<QVector<Change>> setMany(const QVector<Assignment>& assignments,
                                   const ChangeOptions& options = {}) override;
    Reply<QStringList> reset(const QStringList& paths, const ResetOptions& options = {}) override;
    Reply<int> flush() override;
    Reply<bool> dropCache() override;
    Reply<Status> status() override;
    Reply<QString> treeDigest() override;
    Reply<QVariantMap> statistics() override;
    Reply<QStringList> unsavedPaths(int maximum) override;

protected:
    void watchAdded(Watch* watch) override;
    void watchRemoved(Watch* watch) override;

private:
    friend class RemoteSettingsPrivate;

    const std::unique_ptr<RemoteSettingsPrivate> d;
};

} // namespace tulo
