#pragma once

#include "session.h"

#include "engine/engine.h"

#include "api/core/model/cmsubscribe.h"

#include <QSet>

#include <memory>

namespace tulo {

/// The settings served by a worker in this process, on two directories.
///
/// Lives on the thread that opens it. Changes are written a second after the first of them if
/// the event loop runs, and by settle() and flush().
class LocalSession : public Session, private CMSubscriber
{
public:
    /// Null when the directories cannot be served; `failure` says why. With
    /// Access::OwnIfPossible a tree that another process owns is opened for reading, and
    /// readOnlyReason() tells why.
    enum class Access { Read, Own, OwnIfPossible };
    static std::unique_ptr<LocalSession> open(const EngineOptions& options, Access access,
                                              Failure* failure);
    ~LocalSession() override;
    Q_DISABLE_COPY(LocalSession)

    /// Why changes are refused although they were asked for; empty when they are not.
    QString readOnlyReason() const;
    /// The process that owned the tree when it was opened for reading, 0 when not known.
    std::optional<qint64> otherOwner() const;
    /// Catalogues found for the language; 0 when texts stay as they are.
    int catalogueCount() const;

    bool isOwnProcess() const override { return true; }
    Answer<TreeDirectories> directories() override;

    Answer<QVariantHash> getData(const QString& path, const QStringList& roles) override;
    Answer<RowPage> getRows(const QString& path, int first, int last,
                            const QStringList& roles) override;
    Answer<QVariantHash> setValue(const QString& path, const TuloValue& value) override;
    Answer<QVariantHash> setRoles(const QString& path, const QVariantHash& roles) override;
    Answer<QVariantHash> apply(const QString& path, const QString& verb,
                               const TuloValue& operand) override;
    Failure flush() override;
    Failure dropCache() override;
    Failure settle(bool forDisk) override;
    Failure watch(const QString& path) override;
    void unwatch(const QString& path) override;

private:
    LocalSession(std::unique_ptr<Engine> engine, const QString& readOnlyReason);

    Failure saved() const;

    void valueChanged(const CMPath& path, const QVariant& value) override;
    void dataChanged(const CMPath& path) override;
    void rowsChanged(const CMPath& path, const QString& command, int version) override;

    const std::unique_ptr<Engine> m_engine;
    const QString m_readOnlyReason;
    QSet<QString> m_subscribed; ///< grows only: the registry delivers twice to who asks twice
    QSet<QString> m_watched;
};

} // namespace tulo
