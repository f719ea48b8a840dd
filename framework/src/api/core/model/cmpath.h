#pragma once

#include <QMetaType>
#include <QString>
#include <QVariant>

#include <iosfwd>

/// The path of a node in the configuration tree. A value type that keeps the text as given;
/// equal paths are equal texts, nothing is normalised.
///
/// The first component is the mount of the worker that serves the path:
///
///     text                      base()
///     /settings/audio/volume    /audio/volume
///     settings/audio/volume     audio/volume
///     /settings, /settings/     /
///     settings, settings/       (empty)
///     (empty)                   (empty)
class CMPath
{
public:
    CMPath() = default;
    explicit CMPath(const QString& text);
    /// The path of `base` below `mount`, one component; both begin with "/".
    CMPath(const QString& mount, const QString& base);

    bool isEmpty() const;
    const QString& text() const&;
    QString text() const&& { return text(); }
    /// What follows the mount; begins with "/" exactly when the text does.
    const QString& base() const&;
    QString base() const&& { return base(); }
    /// The text with everything but unreserved characters and "/" percent-encoded (RFC 3986).
    QString toEncoded() const;

    bool operator==(const CMPath& other) const;
    bool operator!=(const CMPath& other) const;

    /// As a variant that compares and converts to a string by the text. The first call
    /// registers the metatype "CMPath".
    QVariant toVariant() const;
    /// Tells whether `value` holds a CMPath. Registers nothing, unlike qMetaTypeId().
    static bool isIn(const QVariant& value);
    /// The path in `value`, or that of its string form.
    static CMPath fromVariant(const QVariant& value);
    /// Registers the metatype "CMPath" with its equality and its conversion to a string. Call
    /// it before a path is queued; nothing registers it at load.
    static void registerMetaType();

private:
    QString m_text;
    QString m_base;
};

/// Writes the text in UTF-8.
std::ostream& operator<<(std::ostream& stream, const CMPath& path);

uint qHash(const CMPath& path, uint seed = 0);

Q_DECLARE_METATYPE(CMPath)
