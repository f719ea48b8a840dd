#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantMap>
#include <QVector>

#include <optional>

// Dumps: the changed settings of a device, as text. A line of JSON each:
//
//   {"count":1,"path":"/settings","product":"sport","secrets":false,"tree":"5f0c...","tulo":1}
//   {"id":"AUD-0101","path":"/settings/audio/volume","timestamp":1700000000000,"value":20}
//
// The first line tells what the others are: "tulo" is the number of this format, "path" what was
// dumped, with everything below, "count" how many settings follow, so that a part of a dump is not
// taken for all of it, "secrets" whether encrypted settings are among them, "product" and "tree"
// the device's product variant and the digest of its default tree. Then each setting once, sorted
// by the bytes of its path.

namespace tulo {

/// A setting of a dump.
struct DumpedSetting
{
    QString path; ///< a full one
    QString id; ///< empty when it has none
    QVariant value; ///< a plain one; invalid when none was changed
    std::optional<qint64> timestamp;
    int line = 0; ///< in the text
};

struct Dump
{
    static constexpr int formatNumber = 1;
    /// Of the text: what loading it takes at once.
    static constexpr int maximumBytes = 32 * 1024 * 1024;

    QString path;
    QString product; ///< empty for none
    QString tree; ///< see treeDigest()
    bool hasSecrets = false;
    QVector<DumpedSetting> settings;
};

/// Something that is wrong with the text of a dump.
struct DumpFault
{
    int line = 0; ///< 0 for the text as a whole
    QString message;
};

/// Sorts the settings as a dump has them.
void sortSettings(Dump* dump);
/// The object of the first line.
QVariantMap headerObject(const Dump& dump);
/// The object of a setting's line.
QVariantMap settingObject(const DumpedSetting& setting);

/// Reads a whole dump. Returns everything that is wrong with it by itself, in the order of lines;
/// settings that are fine are in `dump` nevertheless. Empty lines do not count.
[[nodiscard]] QVector<DumpFault> readDump(const QByteArray& text, Dump* dump);

} // namespace tulo
