#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariant>

/// The source of a translatable text in the catalogue's own terms. Borrows its bytes (UTF-8,
/// zero-terminated); they need to live only until a TrString has been built from it.
struct TrCharData
{
    const char* context = nullptr;
    const char* source = nullptr;
    const char* disambiguation = nullptr; ///< may be null
    int n = -1; ///< the number that picks a plural form; -1 for none
};

/// One argument of a translatable text: it replaces the marker %1, %2, ... at its position.
using TrArg = QString;

/// A text that is shown in the current language. A value type that keeps the source and
/// translates each time it is asked, so a cached one follows a change of language.
///
/// Becomes a variant through the conversion operator, which also registers the type, its
/// equality and its conversion to a plain string.
class TrString
{
public:
    TrString() = default;
    /// An untranslated literal text.
    explicit TrString(const QString& text);
    /// A translatable text; copies what `source` borrows.
    TrString(const TrCharData& source, const QList<TrArg>& arguments);

    /// True for a text whose source is empty.
    bool isEmpty() const;
    /// The text in the current language: the literal, or what the installed catalogues hold for
    /// the source (the source itself without one) with its markers replaced.
    QString toString() const;

    /// A literal reads as the context "", the source is its text.
    QString context() const;
    QString source() const;

    bool operator==(const TrString& other) const;
    bool operator!=(const TrString& other) const;
    operator QVariant() const; // NOLINT: a role is set from a text without ceremony

    /// Tells whether `value` holds a TrString. Registers nothing, unlike qMetaTypeId().
    static bool isIn(const QVariant& value);
    /// The text in `value`: a TrString as it is, anything else as a literal of its string form.
    static TrString fromVariant(const QVariant& value);

private:
    QString m_literal;
    QByteArray m_context;
    QByteArray m_source; ///< null for a literal
    QByteArray m_disambiguation;
    int m_n = -1;
    QList<TrArg> m_arguments;
};

Q_DECLARE_METATYPE(TrString)
