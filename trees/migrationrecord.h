#pragma once

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QByteArray>
#include <QLatin1String>
#include <QPair>
#include <QString>
#include <QVector>

#include <functional>

namespace tulo {

/// What migrations have done to a writable tree, so that each is done once and can be taken back.
/// Kept in the tree itself, in the file ".tulo-cm.migrations".
struct MigrationRecord
{
    static constexpr int formatNumber = 1;
    static QLatin1String fileName() { return QLatin1String(".tulo-cm.migrations"); }

    /// A value and when a user set it.
    struct Content
    {
        TuloValue value;
        qint64 timestamp = 0;

        static Content of(const TuloRoles& roles) { return { roles.value(), roles.timestamp() }; }
        bool operator==(const Content& other) const;
    };

    /// One thing that a rule did.
    struct Change
    {
        enum class Kind {
            Rename,
            Step, ///< changes values: of which settings, whether or not they had one
            Value, ///< was changed by the step before
            Remove
        };
        /// A file that was renamed.
        struct File
        {
            QString from;
            QString to;
            TuloRoles roles; ///< that it had
        };

        Kind kind = Kind::Rename;
        QString path; ///< Rename: from; Step: a path or id
        QString to; ///< Rename
        QString id; ///< Value: of the setting
        QVector<File> files; ///< Rename
        Content before; ///< Value
        TuloValue after; ///< Value
        TuloRoles roles; ///< Remove: what the file held
    };

    /// A migration that was carried out.
    struct Applied
    {
        QString name;
        QVector<Change> changes; ///< in order
        int run = 0;
        bool isUndone = false; ///< but for `changes`, which could not be taken back so far
    };

    /// What a setting had at a path that it left, by its id.
    struct Moved
    {
        QString id;
        QString path;
        QString to; ///< where it went
        TuloRoles roles;
        int run = 0;
    };

    /// A value that the image that runs cannot take, while an older one serves, or none.
    struct Kept
    {
        QString name; ///< of the migration; empty: a move by id
        QString path; ///< where the value belongs
        Content served; ///< in its stead: when a user changes that, it is the newest
        TuloRoles roles; ///< of the value
        bool isRenamed = false; ///< belongs to a rename of the migration, not to a change of values
    };

    QVector<Applied> applied; ///< in the order in which they were carried out
    QVector<Moved> moved;
    QVector<Kept> kept;
    int run = 0; ///< how many runs have changed anything
    /// Stamp and product of the image that the tree fits; empty when it had no stamp.
    QString image;

    bool isEmpty() const;
    /// Null when it is not in `applied`.
    Applied* find(const QString& name);

    /// Forgets values: all of them when every place of one is reset. Otherwise those that would
    /// come back by themselves, of reset places; the others are needed to take the rest back.
    void forgetValues(const std::function<bool(const QString& settingPath)>& isReset);

    /// The content of the file: the same for the same record.
    QByteArray toJson() const;
    /// Reads it; an empty document: an empty record. Returns an empty text, or why it cannot be
    /// read.
    [[nodiscard]] static QString fromJson(const QByteArray& document, MigrationRecord* record);
};

} // namespace tulo
