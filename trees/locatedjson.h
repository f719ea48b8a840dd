#pragma once

#include <QByteArray>
#include <QHash>
#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

/// A place in a text; both counted from 1, columns in characters. 0: none is known.
struct TextPosition
{
    int line = 0;
    int column = 0;

    bool isKnown() const { return line > 0; }
    bool operator==(const TextPosition& other) const
    {
        return line == other.line && column == other.column;
    }
    bool operator!=(const TextPosition& other) const { return !(*this == other); }
};

/// A JSON document and the places of what is in it. A JSON pointer names an entry: "/edit/values/0"
/// is the first element of the list under "values" in the object under "edit", "" the document.
struct LocatedJson
{
    /// So many places are remembered at most, of entries whose pointer has at most so many
    /// characters: what a device's files hold has a place, and a hostile file costs little memory.
    static constexpr int maximumPositions = 10000;
    static constexpr int maximumPointerLength = 1000;

    QVariant value; ///< as the worker reads it; the last of duplicate keys wins
    QString error; ///< why it is not JSON, without the place; empty when it is
    TextPosition errorPosition;
    /// Of the keys and list elements that are in `value`, and of the document itself.
    QHash<QString, TextPosition> positions;
    /// Each key of an object that was there before, with the place of its repetition, in order.
    QVector<QPair<QString, TextPosition>> duplicates;

    bool isValid() const { return error.isEmpty(); }
    /// The place of an entry or, when it has none, of the innermost one around it that has.
    TextPosition position(const QString& pointer) const;
};

/// The pointer of an object's entry under `key`.
QString pointerTo(const QString& object, const QString& key);
/// The pointer of a list's element.
QString pointerTo(const QString& list, int index);

/// Reads one whole document. Value and verdict are those of the framework's own JSON reading, on
/// which the worker relies. Thread-safe.
LocatedJson parseLocated(const QByteArray& document);

} // namespace tulo
