#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

#include <iosfwd>

/// A record of named entries, the base of all hash records. A value type: copies share their
/// data until one is changed. The names with the double underscore are the generic access that
/// every record has beside its own accessors.
class TuloHash
{
public:
    TuloHash() = default;
    TuloHash(const QHash<QString, QVariant>& hash); // NOLINT: a hash is a record, implicitly

    /// The entry under `key`, an invalid variant when there is none.
    QVariant __hashAttribute(const QString& key) const;
    void __setHashAttribute(const QString& key, const QVariant& value);
    bool __contains(const QString& key) const;
    void __remove(const QString& key);
    bool __isEmpty() const;
    bool isEmpty() const;
    /// The whole record as one QVariantHash, nested records as nested hashes.
    QVariant __variant() const;

    /// Equal keys with equal entries. Stricter than QVariant's own comparison: a number never
    /// equals a text or a boolean, at any depth; numbers compare by their amount.
    bool operator==(const TuloHash& other) const;
    bool operator!=(const TuloHash& other) const;

private:
    QHash<QString, QVariant> m_hash;
};

std::ostream& operator<<(std::ostream& stream, const TuloHash& hash);

/// What a parser or another operation reports beside its result; empty when all went well.
class TuloError : public TuloHash
{
public:
    using TuloHash::TuloHash;

    /// The entry "message", an empty string when there is none.
    QString message() const;
    void setMessage(const QString& message);
};
