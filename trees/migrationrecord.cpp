#include "trees/migrationrecord.h"

#include "api/core/tulojson.h"

#include <QVariant>

#include <algorithm>

namespace tulo {

namespace {

using Change = MigrationRecord::Change;
using Content = MigrationRecord::Content;

QString text(const char* key)
{
    return QString::fromLatin1(key);
}

QVariant json(const Content& content)
{
    return QVariantHash { { text("value"), content.value.__variant() },
                          { text("timestamp"), content.timestamp } };
}

Content content(const QVariant& json)
{
    const QVariantHash entries = json.toHash();
    return { TuloValue(TuloHash(entries.value(text("value")).toHash())),
             entries.value(text("timestamp")).toLongLong() };
}

TuloRoles roles(const QVariant& json)
{
    return TuloRoles(TuloHash(json.toHash()));
}

// The words of the kinds in the file.
const QVector<QPair<Change::Kind, QString>>& kindWords()
{
    static const QVector<QPair<Change::Kind, QString>> words {
        { Change::Kind::Rename, text("rename") },
        { Change::Kind::Step, text("step") },
        { Change::Kind::Value, text("value") },
        { Change::Kind::Remove, text("remove") },
    };
    return words;
}

QVariant json(const Change& change)
{
    QVariantHash entries { { text("path"), change.path } };
    for (const auto& [kind, word] : kindWords()) {
        if (kind == change.kind)
            entries.insert(text("change"), word);
    }
    if (change.kind == Change::Kind::Rename) {
        QVariantList files;
        for (const Change::File& file : change.files) {
            files.append(QVariantHash { { text("from"), file.from },
                                        { text("to"), file.to },
                                        { text("roles"), file.roles.__variant() } });
        }
        entries.insert(text("to"), change.to);
        entries.insert(text("files"), files);
    } else if (change.kind == Change::Kind::Value) {
        entries.insert(text("id"), change.id);
        entries.insert(text("before"), json(change.before));
        entries.insert(text("after"), change.after.__variant());
    } else if (change.kind == Change::Kind::Remove) {
        entries.insert(text("roles"), change.roles.__variant());
    }
    return entries;
}

bool readChange(const QVariant& json, Change* change)
{
    const QVariantHash entries = json.toHash();
    const QString word = entries.value(text("change")).toString();
    const auto kind = std::find_if(kindWords().cbegin(), kindWords().cend(),
                                   [&word](const auto& known) { return known.second == word; });
    if (kind == kindWords().cend())
        return false;
    change->kind = kind->first;
    change->path = entries.value(text("path")).toString();
    change->to = entries.value(text("to")).toString();
    const QVariantList files = entries.value(text("files")).toList();
    for (const QVariant& entry : files) {
        const QVariantHash file = entry.toHash();
        change->files.append({ file.value(text("from")).toString(),
                               file.value(text("to")).toString(),
                               roles(file.value(text("roles"))) });
    }
    change->id = entries.value(text("id")).toString();
    change->before = content(entries.value(text("before")));
    change->after = TuloValue(TuloHash(entries.value(text("after")).toHash()));
    change->roles = roles(entries.value(text("roles")));
    return !change->path.isEmpty();
}

} // namespace

bool Content::operator==(const Content& other) const
{
    return timestamp == other.timestamp && value == other.value;
}

bool MigrationRecord::isEmpty() const
{
    return applied.isEmpty() && moved.isEmpty() && kept.isEmpty() && image.isEmpty();
}

MigrationRecord::Applied* MigrationRecord::find(const QString& name)
{
    const auto found = std::find_if(applied.begin(), applied.end(),
                                    [&name](const Applied& entry) { return entry.name == name; });
    return found == applied.end() ? nullptr : &*found;
}

void MigrationRecord::forgetValues(const std::function<bool(const QString&)>& isReset)
{
    bool isAll = true;
    const auto isForgotten = [&isReset, &isAll](const QString& path, const QString& other) {
        const bool isBothReset = isReset(path) && (other.isEmpty() || isReset(other));
        isAll = isAll && isBothReset;
        return isBothReset;
    };
    const auto eraseIf = [](auto& list, const auto& condition) {
        list.erase(std::remove_if(list.begin(), list.end(), condition), list.end());
    };
    eraseIf(moved, [&](const Moved& entry) { return isForgotten(entry.path, entry.to); });
    eraseIf(kept, [&](const Kept& entry) { return isForgotten(entry.path, QString()); });
    for (Applied& entry : applied) {
        eraseIf(entry.changes, [&](const Change& change) {
            // Holds no value.
            if (change.kind == Change::Kind::Step)
                return false;
            for (const Change::File& file : change.files)
                (void)isForgotten(file.from, file.to);
            return isForgotten(change.path, change.to) && change.kind == Change::Kind::Remove;
        });
    }
    for (Applied& entry : applied) {
        if (!isAll)
            break;
        eraseIf(entry.changes,
                [](const Change& change) { return change.kind == Change::Kind::Value; });
        for (Change& change : entry.changes)
            change.files.clear();
    }
}

QByteArray MigrationRecord::toJson() const
{
    QVariantList appliedEntries;
    for (const Applied& entry : applied) {
        QVariantList changes;
        for (const Change& change : entry.changes)
            changes.append(json(change));
        appliedEntries.append(QVariantHash { { text("name"), entry.name },
                                             { text("changes"), changes },
                                             { text("run"), entry.run },
                                             { text("undone"), entry.isUndone } });
    }
    QVariantList movedEntries;
    for (const Moved& entry : moved) {
        movedEntries.append(QVariantHash { { text("id"), entry.id },
                                           { text("path"), entry.path },
                                           { text("to"), entry.to },
                                           { text("run"), entry.run },
                                           { text("roles"), entry.roles.__variant() } });
    }
    QVariantList keptEntries;
    for (const Kept& entry : kept) {
        keptEntries.append(QVariantHash { { text("name"), entry.name },
                                          { text("path"), entry.path },
                                          { text("served"), json(entry.served) },
                                          { text("renamed"), entry.isRenamed },
                                          { text("roles"), entry.roles.__variant() } });
    }
    return TuloJson::serialize(QVariantHash { { text("format"), formatNumber },
                                              { text("run"), run },
                                              { text("image"), image },
                                              { text("applied"), appliedEntries },
                                              { text("moved"), movedEntries },
                                              { text("kept"), keptEntries } });
}

QString MigrationRecord::fromJson(const QByteArray& document, MigrationRecord* record)
{
    *record = MigrationRecord();
    if (document.isEmpty())
        return QString();
    TuloError error;
    const QVariantHash entries = TuloJson::parse(document, error, nullptr).toHash();
    if (!error.isEmpty())
        return error.message();
    const qlonglong format = entries.value(text("format")).toLongLong();
    if (format != formatNumber) {
        return QStringLiteral("has the format %1, and this program knows %2")
            .arg(QString::number(format), QString::number(formatNumber));
    }
    MigrationRecord read;
    read.run = entries.value(text("run")).toInt();
    read.image = entries.value(text("image")).toString();
    const QVariantList appliedEntries = entries.value(text("applied")).toList();
    for (const QVariant& json : appliedEntries) {
        const QVariantHash entry = json.toHash();
        Applied applied;
        applied.name = entry.value(text("name")).toString();
        applied.run = entry.value(text("run")).toInt();
        applied.isUndone = entry.value(text("undone")).toBool();
        const QVariantList changes = entry.value(text("changes")).toList();
        for (const QVariant& changeEntry : changes) {
            Change change;
            if (!readChange(changeEntry, &change))
                return QStringLiteral("holds a change that this program does not know");
            applied.changes.append(change);
        }
        read.applied.append(applied);
    }
    const QVariantList movedEntries = entries.value(text("moved")).toList();
    for (const QVariant& json : movedEntries) {
        const QVariantHash entry = json.toHash();
        read.moved.append({ entry.value(text("id")).toString(),
                            entry.value(text("path")).toString(),
                            entry.value(text("to")).toString(), roles(entry.value(text("roles"))),
                            entry.value(text("run")).toInt() });
    }
    const QVariantList keptEntries = entries.value(text("kept")).toList();
    for (const QVariant& json : keptEntries) {
        const QVariantHash entry = json.toHash();
        read.kept.append({ entry.value(text("name")).toString(),
                           entry.value(text("path")).toString(),
                           content(entry.value(text("served"))), roles(entry.value(text("roles"))),
                           entry.value(text("renamed")).toBool() });
    }
    *record = read;
    return QString();
}

} // namespace tulo
