#include "trees/dump.h"

#include "client/base/checks.h"
#include "trees/locatedjson.h"
#include "trees/plainjson.h"
#include "trees/separator.h"

#include <QHash>
#include <QLatin1String>

#include <algorithm>

namespace tulo {

namespace {

const QLatin1String formatKey("tulo");
const QLatin1String countKey("count");
const QLatin1String productKey("product");
const QLatin1String secretsKey("secrets");
const QLatin1String treeKey("tree");
const QLatin1String pathKey("path");
const QLatin1String idKey("id");
const QLatin1String valueKey("value");
const QLatin1String timestampKey("timestamp");

bool isText(const QVariant& value)
{
    return value.userType() == QMetaType::QString;
}

bool isNumber(const QVariant& value)
{
    return value.userType() == QMetaType::LongLong && value.toLongLong() >= 0;
}

bool isTruthValue(const QVariant& value)
{
    return value.userType() == QMetaType::Bool;
}

/// Reads the lines one by one.
class Reader
{
public:
    explicit Reader(Dump* dump)
        : m_dump(dump)
    {
    }

    QVector<DumpFault> read(const QByteArray& text)
    {
        if (text.size() > Dump::maximumBytes) {
            fault(QStringLiteral("a dump takes at most %1 MiB")
                      .arg(Dump::maximumBytes / 1024 / 1024));
            return m_faults;
        }
        const QList<QByteArray> lines = text.split('\n');
        for (const QByteArray& line : lines) {
            ++m_line;
            if (!line.trimmed().isEmpty() && !readLine(line))
                break;
        }
        if (m_faults.isEmpty() && !m_hasHeader) {
            m_line = 1;
            fault(QStringLiteral("is not a dump: it is empty"));
        } else if (m_hasHeader && m_seen != m_count) {
            fault(QStringLiteral("the dump is not complete: its first line tells of %1 settings, "
                                 "there are %2")
                      .arg(m_count)
                      .arg(m_seen));
        }
        return m_faults;
    }

private:
    void fault(const QString& message) { m_faults.append({ m_line, message }); }

    /// False when it makes no sense to go on.
    bool readLine(const QByteArray& line)
    {
        std::optional<QVariantMap> object = parse(line);
        if (!m_hasHeader) {
            m_hasHeader = object && readHeader(&*object);
            return m_hasHeader;
        }
        ++m_seen;
        if (object)
            readSetting(&*object);
        return true;
    }

    std::optional<QVariantMap> parse(const QByteArray& line)
    {
        const LocatedJson located = parseLocated(line);
        if (!located.isValid()) {
            fault(QStringLiteral("column %1: %2")
                      .arg(located.errorPosition.column)
                      .arg(located.error));
            return std::nullopt;
        }
        if (!located.duplicates.isEmpty()) {
            fault(QStringLiteral("column %1: the key '%2' is there twice")
                      .arg(located.duplicates.constFirst().second.column)
                      .arg(nameOf(located.duplicates.constFirst().first)));
            return std::nullopt;
        }
        QString error;
        const QVariant value = fromJson(line, &error);
        if (value.userType() != QMetaType::QVariantMap) {
            fault(m_hasHeader ? QStringLiteral("is not an object")
                              : QStringLiteral("is not a dump: its first line is not an object"));
            return std::nullopt;
        }
        return value.toMap();
    }

    /// What is under `key`, which goes; an invalid variant and a fault when it is missing or not
    /// what `isRight` wants.
    QVariant take(QVariantMap* object, QLatin1String key, bool (*isRight)(const QVariant&),
                  const char* kind)
    {
        if (!object->contains(key)) {
            fault(QStringLiteral("has no '%1'").arg(key));
            return QVariant();
        }
        QVariant value = object->take(key);
        if (isRight(value))
            return value;
        fault(QStringLiteral("'%1' is not %2").arg(key, QLatin1String(kind)));
        return QVariant();
    }

    void checkNoMore(const QVariantMap& object)
    {
        for (auto entry = object.cbegin(); entry != object.cend(); ++entry)
            fault(QStringLiteral("has the unknown key '%1'").arg(entry.key()));
    }

    bool readHeader(QVariantMap* object)
    {
        const QVariant format = object->take(formatKey);
        if (!isNumber(format)) {
            fault(QStringLiteral("is not a dump: its first line has no 'tulo'"));
            return false;
        }
        if (format.toLongLong() != Dump::formatNumber) {
            fault(QStringLiteral("is a dump of format %1, which this program does not know")
                      .arg(format.toLongLong()));
            return false;
        }
        const int before = m_faults.size();
        m_dump->path = take(object, pathKey, isText, "a text").toString();
        m_dump->product = take(object, productKey, isText, "a text").toString();
        m_dump->tree = take(object, treeKey, isText, "a text").toString();
        m_dump->hasSecrets = take(object, secretsKey, isTruthValue, "true or false").toBool();
        m_count = take(object, countKey, isNumber, "a number").toLongLong();
        checkNoMore(*object);
        if (m_faults.size() == before)
            checkPathOf(m_dump->path);
        return m_faults.size() == before;
    }

    void checkPathOf(const QString& path)
    {
        const Error error = checkPath(path);
        if (error)
            fault(error.message);
        else if (!path.startsWith(separator))
            fault(QStringLiteral("'%1' is not a full path").arg(path));
    }

    void readSetting(QVariantMap* object)
    {
        const int before = m_faults.size();
        DumpedSetting setting;
        setting.line = m_line;
        setting.path = take(object, pathKey, isText, "a text").toString();
        if (object->contains(idKey))
            setting.id = take(object, idKey, isText, "a text").toString();
        if (object->contains(timestampKey)) {
            const QVariant timestamp =
                take(object, timestampKey, isNumber, "a number of milliseconds");
            setting.timestamp = timestamp.toLongLong();
        }
        if (object->contains(valueKey)) {
            setting.value = object->take(valueKey);
            if (!setting.value.isValid() || setting.value.userType() == QMetaType::QVariantMap)
                fault(QStringLiteral("'value' is not a value that a setting can have"));
        }
        checkNoMore(*object);
        if (m_faults.size() == before && setting.id.isEmpty() && !setting.timestamp
            && !setting.value.isValid())
            fault(QStringLiteral("has neither 'value' nor 'timestamp' nor 'id'"));
        if (m_faults.size() == before)
            checkPathOf(setting.path);
        if (m_faults.size() == before && !isAtOrBelow(setting.path, m_dump->path))
            fault(QStringLiteral("'%1' is not below '%2'").arg(setting.path, m_dump->path));
        const int first = m_lines.value(setting.path);
        if (m_faults.size() == before && first != 0)
            fault(QStringLiteral("'%1' was there in line %2").arg(setting.path).arg(first));
        if (m_faults.size() != before)
            return;
        m_lines.insert(setting.path, m_line);
        m_dump->settings.append(setting);
    }

    Dump* const m_dump;
    QVector<DumpFault> m_faults;
    int m_line = 0;
    bool m_hasHeader = false;
    qint64 m_count = 0; ///< of settings, as the first line says
    qint64 m_seen = 0;
    QHash<QString, int> m_lines; ///< of settings, by path
};

} // namespace

void sortSettings(Dump* dump)
{
    std::sort(dump->settings.begin(), dump->settings.end(),
              [](const DumpedSetting& left, const DumpedSetting& right) {
                  return left.path.toUtf8() < right.path.toUtf8();
              });
}

QVariantMap headerObject(const Dump& dump)
{
    return { { formatKey, Dump::formatNumber },  { pathKey, dump.path },
             { productKey, dump.product },       { secretsKey, dump.hasSecrets },
             { countKey, dump.settings.size() }, { treeKey, dump.tree } };
}

QVariantMap settingObject(const DumpedSetting& setting)
{
    QVariantMap object { { pathKey, setting.path } };
    if (!setting.id.isEmpty())
        object.insert(idKey, setting.id);
    if (setting.value.isValid())
        object.insert(valueKey, setting.value);
    if (setting.timestamp)
        object.insert(timestampKey, *setting.timestamp);
    return object;
}

QVector<DumpFault> readDump(const QByteArray& text, Dump* dump)
{
    return Reader(dump).read(text);
}

} // namespace tulo
