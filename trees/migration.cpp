#include "trees/migration.h"

#include "trees/nodenames.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"
#include "trees/writtenfiles.h"

#include "api/core/tulojson.h"

#include <QMultiHash>
#include <QPair>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace tulo {

namespace {

using Change = MigrationRecord::Change;
using Content = MigrationRecord::Content;

int numberOf(const QString& name)
{
    return name.left(4).toInt(); // NOLINT: the digits in front of a migration's name
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The image.
// ---------------------------------------------------------------------------------------------

std::optional<TuloRoles> ImageSettings::place(const QString& path) const
{
    const auto shipped = settings.constFind(path);
    if (shipped != settings.cend())
        return *shipped;
    const auto parent = templates.constFind(parentOf(path));
    if (parent == templates.cend() || directories.contains(path) || !isListable(nameOf(path)))
        return std::nullopt;
    return *parent;
}

QHash<QString, QStringList> ImageSettings::pathsById() const
{
    QHash<QString, QStringList> paths;
    for (auto setting = settings.cbegin(); setting != settings.cend(); ++setting) {
        const QString id = setting->id();
        const QString& path = setting.key();
        const QStringList plainPaths = plainPathsOf(path);
        const bool isVariant =
            std::any_of(plainPaths.cbegin(), plainPaths.cend(), [&](const QString& plain) {
                return settings.contains(plain) && settings[plain].id() == id;
            });
        if (!id.isEmpty() && !isVariant)
            paths[id].append(path);
    }
    for (QStringList& ofOneId : paths)
        ofOneId.sort();
    return paths;
}

namespace {

// ---------------------------------------------------------------------------------------------
// Planning. Everything is tried out on copies in memory. What turns out not to fit is tried again
// with less: first the value that an older image had, then nothing at all for that value, until
// everything fits.
// ---------------------------------------------------------------------------------------------

class Planner
{
public:
    Planner(const MigrationInput& input, bool isUndo)
        : m_input(input)
        , m_isUndo(isUndo)
        , m_pathsById(input.image.pathsById())
    {
        for (auto file = input.written.cbegin(); file != input.written.cend(); ++file) {
            TuloError error;
            const QVariant content = TuloJson::parse(*file, error, nullptr);
            if (!error.isEmpty() || content.userType() != QMetaType::QVariantHash)
                m_damaged.insert(file.key());
            else
                addWritten(file.key(), TuloRoles(TuloHash(content.toHash())));
        }
    }

    MigrationPlan plan()
    {
        // Each round gives up on something, so it ends.
        do {
            m_record = m_input.record;
            m_entries = m_written;
            m_at.clear();
            for (int i = 0; i < int(m_entries.size()); ++i)
                m_at.insert(m_entries[size_t(i)].path, i);
            ++m_record.run;
            if (m_isUndo) {
                undoLastRun();
            } else {
                undoUnknown();
                moveById();
                applyNew();
            }
        } while (reduceWhatDoesNotFit());
        return result();
    }

private:
    enum class Mode { Newest, Before, Stay };

    // A written file, or one that comes out of the record.
    struct Entry
    {
        QString origin; ///< its path before; empty: out of the record
        QString path;
        TuloRoles roles;
        QString formerPath; ///< that it left by its id
        QStringList causes;
        bool isRemoved = false;
        bool isReplaced = false; ///< by what an older image had
        bool isTakenBack = false; ///< to the value before a migration
        bool mustFit = false; ///< although nothing was changed
    };

    // Of a migration that has not been applied.
    struct PendingStep
    {
        QString name;
        const MigrationStep* step;
    };

    void addWritten(const QString& path, const TuloRoles& roles)
    {
        Entry entry;
        entry.origin = path;
        entry.path = path;
        entry.roles = roles;
        m_written.push_back(entry);
    }

    static QString keyOf(const Entry& entry)
    {
        return entry.origin.isEmpty() ? QLatin1Char(' ') + entry.path : entry.origin;
    }

    Mode modeOf(const Entry& entry) const { return m_modes.value(keyOf(entry), Mode::Newest); }

    bool isFree(const Entry& entry) const
    {
        return !entry.isRemoved && modeOf(entry) != Mode::Stay;
    }

    // The one that may be handled at `path`, null when there is none.
    Entry* entryAt(const QString& path)
    {
        for (auto found = m_at.constFind(path); found != m_at.cend() && found.key() == path;
             ++found) {
            if (!m_entries[size_t(*found)].isRemoved)
                return &m_entries[size_t(*found)];
        }
        return nullptr;
    }

    void move(Entry* entry, const QString& path)
    {
        const int index = int(entry - m_entries.data());
        m_at.remove(entry->path, index);
        m_at.insert(path, index);
        entry->path = path;
    }

    static void addCause(Entry* entry, const QString& cause)
    {
        if (!entry->causes.contains(cause))
            entry->causes.append(cause);
    }

    static void setContent(Entry* entry, const TuloValue& value, qint64 timestamp)
    {
        entry->roles.setValue(value);
        if (timestamp != 0)
            entry->roles.setTimestamp(timestamp);
        else
            entry->roles.__remove(TuloRoles::Timestamp());
    }

    static void setId(Entry* entry, const QString& id)
    {
        if (id.isEmpty())
            entry->roles.__remove(TuloRoles::Id());
        else
            entry->roles.setId(id);
    }

    // -----------------------------------------------------------------------------------------
    // Taking back.
    // -----------------------------------------------------------------------------------------

    void undoUnknown()
    {
        QSet<QString> known;
        int highest = -1;
        for (const Migration& migration : m_input.migrations) {
            known.insert(migration.name);
            highest = qMax(highest, migration.number);
        }
        undoApplied([&](const MigrationRecord::Applied& applied) {
            return !known.contains(applied.name) && numberOf(applied.name) >= highest;
        });
    }

    void undoLastRun()
    {
        int last = 0;
        for (const MigrationRecord::Applied& applied : qAsConst(m_record.applied))
            last = qMax(last, applied.run);
        for (const MigrationRecord::Moved& moved : qAsConst(m_record.moved))
            last = qMax(last, moved.run);
        undoApplied([&](const MigrationRecord::Applied& applied) { return applied.run == last; });
        for (int i = m_record.moved.size() - 1; i >= 0; --i) {
            const MigrationRecord::Moved moved = m_record.moved[i];
            if (moved.run != last)
                continue;
            m_record.moved.removeAt(i);
            for (Entry& entry : m_entries) {
                if (!isFree(entry) || entry.roles.id() != moved.id || entry.path != moved.to)
                    continue;
                addCause(&entry, QStringLiteral("undo id '%1'").arg(moved.id));
                move(&entry, moved.path);
            }
        }
    }

    template<typename Condition>
    void undoApplied(Condition isToUndo)
    {
        for (int i = m_record.applied.size() - 1; i >= 0; --i) {
            MigrationRecord::Applied applied = m_record.applied[i];
            if (!isToUndo(applied))
                continue;
            QVector<Change> left;
            for (int j = applied.changes.size() - 1; j >= 0; --j) {
                const std::optional<Change> rest = undo(applied.name, applied.changes[j]);
                if (rest)
                    left.prepend(*rest);
            }
            applied.changes = left;
            applied.isUndone = true;
            if (left.isEmpty())
                m_record.applied.removeAt(i);
            else
                m_record.applied[i] = applied;
        }
    }

    // What of the change could not be taken back.
    std::optional<Change> undo(const QString& name, const Change& change)
    {
        const QString cause = QStringLiteral("undo ") + name;
        switch (change.kind) {
        case Change::Kind::Rename:
            return undoRename(name, change);
        case Change::Kind::Step:
            undoStep(name, change);
            return std::nullopt;
        case Change::Kind::Value:
            return undoValue(name, cause, change);
        case Change::Kind::Remove:
            break;
        }
        Entry entry;
        entry.path = change.path;
        entry.roles = change.roles;
        entry.causes.append(cause);
        // Somebody has set it since.
        if (entryAt(change.path) != nullptr || m_damaged.contains(change.path))
            return std::nullopt;
        if (modeOf(entry) == Mode::Stay)
            return change;
        add(entry);
        return std::nullopt;
    }

    // Puts a value that this image cannot take into the record. The image that brings the
    // migration again gets it back, unless a user has set another one.
    void stow(const QString& name, Entry* entry, bool isRenamed)
    {
        m_record.kept.append({ name, entry->path, Content(), entry->roles, isRenamed });
        addCause(entry, QStringLiteral("it stays in the record"));
        entry->isRemoved = true;
    }

    // What stow() has put there and the step is about.
    template<typename Condition>
    void unstow(const QString& name, bool isRenamed, Condition isMeantBy)
    {
        for (int i = m_record.kept.size() - 1; i >= 0; --i) {
            const MigrationRecord::Kept kept = m_record.kept[i];
            Entry entry;
            entry.path = kept.path;
            entry.roles = kept.roles;
            entry.causes.append(name);
            if (kept.name != name || kept.isRenamed != isRenamed || !kept.served.value.isEmpty()
                || !isMeantBy(entry) || modeOf(entry) == Mode::Stay)
                continue;
            m_record.kept.removeAt(i);
            if (entryAt(entry.path) == nullptr)
                add(entry);
        }
    }

    void add(const Entry& entry)
    {
        m_entries.push_back(entry);
        m_at.insert(entry.path, int(m_entries.size()) - 1);
    }

    // Values that were set under an image with the step, for the first time, may be too much for
    // one without it.
    void undoStep(const QString& name, const Change& change)
    {
        MigrationStep step;
        step.kind = MigrationStep::Kind::Convert;
        step.target = change.path;
        for (Entry& entry : m_entries) {
            if (!isFree(entry) || !isMeant(step, entry))
                continue;
            if (modeOf(entry) == Mode::Newest)
                entry.mustFit = true;
            else if (!entry.isTakenBack)
                stow(name, &entry, false);
        }
    }

    std::optional<Change> undoRename(const QString& name, const Change& change)
    {
        const QString cause = QStringLiteral("undo ") + name;
        Change left = change;
        left.files.clear();
        for (const Change::File& file : change.files) {
            Entry* const entry = entryAt(file.to);
            if (entry == nullptr)
                continue; // taken back by a user
            if (!isFree(*entry)) {
                left.files.append(file);
                continue;
            }
            addCause(entry, cause);
            if (modeOf(*entry) == Mode::Before && !entry->isTakenBack) {
                m_record.kept.append(
                    { name, file.to, Content::of(file.roles), entry->roles, true });
                replaceBy(entry, file.roles);
                entry->isTakenBack = true;
            }
            setId(entry, file.roles.id());
            move(entry, file.from);
        }
        // What was set for the first time under the new name.
        for (Entry& entry : m_entries) {
            if (!isFree(entry) || !isAtOrBelow(entry.path, change.to)
                || m_input.image.place(entry.path))
                continue;
            if (modeOf(entry) == Mode::Before && !entry.isTakenBack) {
                stow(name, &entry, true);
                continue;
            }
            addCause(&entry, cause);
            move(&entry, change.path + entry.path.mid(change.to.size()));
        }
        return left.files.isEmpty() ? std::nullopt : std::make_optional(left);
    }

    // The value that the change was about. It may have followed its id since.
    Entry* entryOf(const Change& change)
    {
        Entry* const here = entryAt(change.path);
        if (change.id.isEmpty() || (here != nullptr && here->roles.id() == change.id))
            return here;
        for (Entry& entry : m_entries) {
            if (!entry.isRemoved && entry.roles.id() == change.id)
                return &entry;
        }
        return here;
    }

    static void replaceBy(Entry* entry, const TuloRoles& roles)
    {
        entry->roles = roles;
        entry->isReplaced = true;
        addCause(entry, QStringLiteral("the newer value stays in the record"));
    }

    std::optional<Change> undoValue(const QString& name, const QString& cause, const Change& change)
    {
        Entry* const entry = entryOf(change);
        if (entry == nullptr)
            return std::nullopt;
        if (modeOf(*entry) == Mode::Stay)
            return change;
        const bool isUnchanged = entry->roles.value() == change.after
            && entry->roles.timestamp() == change.before.timestamp;
        const bool isOtherKind = entry->roles.value().kind() != change.before.value.kind();
        if (!isUnchanged && modeOf(*entry) == Mode::Newest && !(m_isUndo && isOtherKind)) {
            entry->mustFit = true;
            return std::nullopt;
        }
        if (!isUnchanged) {
            m_record.kept.append({ name, change.path, change.before, entry->roles, false });
            replaceBy(entry, entry->roles);
        }
        addCause(entry, cause);
        entry->isTakenBack = true;
        setContent(entry, change.before.value, change.before.timestamp);
        return std::nullopt;
    }

    // -----------------------------------------------------------------------------------------
    // Following ids.
    // -----------------------------------------------------------------------------------------

    // Where the setting with this id is; empty when none or several have it.
    QString pathOf(const QString& id) const
    {
        const QStringList paths = m_pathsById.value(id);
        return paths.size() == 1 ? paths.constFirst() : QString();
    }

    // Where the value of the entry belongs by its id, if that is another path: the first of
    // several.
    QString placeById(const Entry& entry) const
    {
        const QStringList paths = m_pathsById.value(entry.roles.id());
        if (paths.isEmpty() || paths.contains(entry.path))
            return QString();
        const QString& path = paths.constFirst();
        const auto here = m_input.image.settings.constFind(entry.path);
        if (here == m_input.image.settings.cend()) {
            // A client may have made it here, and given it any id.
            return m_input.image.place(entry.path) ? QString() : path;
        }
        // The path has been given to another setting.
        return here->id().isEmpty() || here->id() == entry.roles.id() ? QString() : path;
    }

    void moveById()
    {
        QHash<QString, int> candidates;
        for (const Entry& entry : m_entries) {
            if (!entry.isRemoved && !placeById(entry).isEmpty())
                ++candidates[entry.roles.id()];
        }
        for (Entry& entry : m_entries) {
            const QString path = isFree(entry) ? placeById(entry) : QString();
            if (path.isEmpty())
                continue;
            const QString id = entry.roles.id();
            const QStringList places = m_pathsById.value(id);
            QString obstacle;
            if (places.size() > 1) {
                obstacle = QStringLiteral("several settings have this id: %1")
                               .arg(places.join(QLatin1String(", ")));
            } else if (candidates.value(id) > 1) {
                obstacle = QStringLiteral("several written values have this id");
            }
            if (obstacle.isEmpty())
                moveToPlace(&entry, path);
            else
                m_obstacles.insert(keyOf(entry),
                                   { path, entry.roles.value(), causeOf(id), obstacle });
        }
        forgetReset();
    }

    // What a setting had here once, when nothing of it is left elsewhere: a user has reset it
    // since.
    void forgetReset()
    {
        QSet<QString> elsewhere;
        for (const Entry& entry : m_entries) {
            if (!entry.isRemoved && entry.path != pathOf(entry.roles.id()))
                elsewhere.insert(entry.roles.id());
        }
        for (int i = m_record.moved.size() - 1; i >= 0; --i) {
            const MigrationRecord::Moved& moved = m_record.moved[i];
            if (pathOf(moved.id) == moved.path && !elsewhere.contains(moved.id))
                m_record.moved.removeAt(i);
        }
    }

    static QString causeOf(const QString& id) { return QStringLiteral("id '%1'").arg(id); }

    void moveToPlace(Entry* entry, const QString& path)
    {
        const QString id = entry->roles.id();
        const QString left = entry->path;
        const TuloRoles roles = entry->roles;
        addCause(entry, causeOf(id));
        for (int i = m_record.kept.size() - 1; i >= 0; --i) {
            const MigrationRecord::Kept kept = m_record.kept[i];
            if (!kept.name.isEmpty() || kept.path != path || kept.roles.id() != id)
                continue;
            // What a user set in its stead is newer.
            if (kept.served == Content::of(entry->roles))
                entry->roles = kept.roles;
            m_record.kept.removeAt(i);
        }
        for (int i = m_record.moved.size() - 1; i >= 0; --i) {
            const MigrationRecord::Moved moved = m_record.moved[i];
            if (moved.id != id || (moved.path != path && moved.path != left))
                continue;
            if (moved.path == path && modeOf(*entry) == Mode::Before && !entry->isReplaced) {
                m_record.kept.append(
                    { QString(), left, Content::of(moved.roles), entry->roles, false });
                replaceBy(entry, moved.roles);
            }
            m_record.moved.removeAt(i);
        }
        m_record.moved.append({ id, left, path, roles, m_record.run });
        // Set under an image that had it there; the newer of the two is what the user wants.
        Entry* const there = entryAt(path);
        if (there != nullptr && there->roles.id() == id && isFree(*there)
            && there->roles.timestamp() < entry->roles.timestamp()) {
            addCause(there, QStringLiteral("a newer value of ") + causeOf(id));
            there->isRemoved = true;
        }
        entry->formerPath = left;
        move(entry, path);
    }

    // -----------------------------------------------------------------------------------------
    // Rules.
    // -----------------------------------------------------------------------------------------

    void applyNew()
    {
        m_pending.clear();
        QVector<QPair<QString, int>> ends;
        for (const Migration& migration : m_input.migrations) {
            const MigrationRecord::Applied* const applied = m_record.find(migration.name);
            if (applied != nullptr && !applied->isUndone)
                continue;
            for (const MigrationStep& step : migration.steps)
                m_pending.append({ migration.name, &step });
            ends.append({ migration.name, m_pending.size() });
        }
        int next = 0;
        for (const auto& [name, end] : qAsConst(ends)) {
            MigrationRecord::Applied applied;
            if (const MigrationRecord::Applied* const undone = m_record.find(name)) {
                applied = *undone;
                m_record.applied.removeAt(int(undone - m_record.applied.constData()));
            }
            applied.name = name;
            applied.run = m_record.run;
            applied.isUndone = false;
            for (; next < end; ++next)
                apply(next, &applied.changes);
            m_record.applied.append(applied);
        }
    }

    void apply(int index, QVector<Change>* changes)
    {
        const MigrationStep& step = *m_pending[index].step;
        if (step.kind == MigrationStep::Kind::Rename) {
            changes->append(rename(index));
            unstow(m_pending[index].name, true,
                   [&step](const Entry& entry) { return isAtOrBelow(entry.path, step.to); });
            return;
        }
        if (step.kind != MigrationStep::Kind::Remove) {
            Change change;
            change.kind = Change::Kind::Step;
            change.path = step.target;
            changes->append(change);
        }
        for (Entry& entry : m_entries) {
            if (!isFree(entry) || !isMeant(step, entry))
                continue;
            if (step.kind == MigrationStep::Kind::Remove) {
                changes->append(removal(entry));
                addCause(&entry, m_pending[index].name);
                entry.isRemoved = true;
                continue;
            }
            const std::optional<Change> change = changeValue(index, &entry);
            if (change)
                changes->append(*change);
        }
        unstow(m_pending[index].name, false,
               [&step](const Entry& entry) { return isMeant(step, entry); });
    }

    static bool isMeant(const MigrationStep& step, const Entry& entry)
    {
        if (!step.target.startsWith(separator))
            return entry.roles.id() == step.target;
        // A rule may have been written for an image that had the setting there.
        return isAtOrBelow(entry.path, step.target)
            || (step.kind != MigrationStep::Kind::Remove && entry.formerPath == step.target);
    }

    Change rename(int index)
    {
        const MigrationStep& step = *m_pending[index].step;
        Change change;
        change.kind = Change::Kind::Rename;
        change.path = step.target;
        change.to = step.to;
        for (Entry& entry : m_entries) {
            if (!isFree(entry) || !isAtOrBelow(entry.path, step.target))
                continue;
            const QString path = step.to + entry.path.mid(step.target.size());
            change.files.append({ entry.path, path, entry.roles });
            addCause(&entry, m_pending[index].name);
            move(&entry, path);
            takeKept(m_pending[index].name, true, &entry);
            const std::optional<TuloRoles> there = destination(index, entry);
            // Or it would be taken for the setting that it was.
            if (there && !there->id().isEmpty())
                setId(&entry, there->id());
        }
        return change;
    }

    // The value that a user set there under an earlier run of the migration, if no user has set
    // another one since.
    void takeKept(const QString& name, bool isRenamed, Entry* entry)
    {
        for (int i = m_record.kept.size() - 1; i >= 0; --i) {
            const MigrationRecord::Kept kept = m_record.kept[i];
            if (kept.name != name || kept.isRenamed != isRenamed || kept.path != entry->path
                || kept.served.value.isEmpty())
                continue;
            if (kept.served == Content::of(entry->roles))
                entry->roles = kept.roles;
            m_record.kept.removeAt(i);
        }
    }

    static Change removal(const Entry& entry)
    {
        Change change;
        change.kind = Change::Kind::Remove;
        change.path = entry.path;
        change.roles = entry.roles;
        return change;
    }

    std::optional<Change> changeValue(int index, Entry* entry)
    {
        const Content before = Content::of(entry->roles);
        if (before.value.isEmpty())
            return std::nullopt;
        const QString& name = m_pending[index].name;
        takeKept(name, false, entry);
        Content after = Content::of(entry->roles);
        if (after == before)
            after.value = newValue(index, *entry);
        if (after.value.isEmpty() || after == before)
            return std::nullopt;
        Change change;
        change.kind = Change::Kind::Value;
        change.path = entry->path;
        change.id = entry->roles.id();
        change.before = before;
        change.after = after.value;
        addCause(entry, name);
        setContent(entry, after.value, after.timestamp);
        return change;
    }

    // Empty, or the same, where the step does nothing.
    TuloValue newValue(int index, const Entry& entry) const
    {
        const MigrationStep& step = *m_pending[index].step;
        const TuloValue value = entry.roles.value();
        if (step.kind == MigrationStep::Kind::Map)
            return mapped(step, value);
        if (step.kind == MigrationStep::Kind::Convert)
            return converted(step, value);
        const std::optional<TuloRoles> there = destination(index, entry);
        return there ? validateChange(*there, value).value : TuloValue();
    }

    static TuloValue mapped(const MigrationStep& step, const TuloValue& value)
    {
        for (const auto& [from, to] : step.values) {
            if (TuloValue::ofContent(from).convertedTo(value.kind()) == value)
                return TuloValue::ofContent(to);
        }
        return value;
    }

    static TuloValue converted(const MigrationStep& step, const TuloValue& value)
    {
        if (value.kind() == step.valueKind && step.scale == 1)
            return value;
        if (step.valueKind == TuloValue::String())
            return valueOfKind(step.valueKind, value.content());
        bool isNumber = isNumberKind(value.kind());
        double number = value.content().toDouble();
        if (value.kind() == TuloValue::String())
            number = value.content().toString().toDouble(&isNumber);
        number *= step.scale;
        if (!isNumber || !std::isfinite(number))
            return TuloValue();
        if (step.valueKind == TuloValue::Double())
            return TuloValue::of(step.valueKind, number);
        // Beyond this a double is no longer exact.
        constexpr double largest = 9007199254740992.0;
        return std::fabs(number) > largest
            ? TuloValue()
            : TuloValue::of(step.valueKind, qlonglong(std::llround(number)));
    }

    // What the image has where the entry ends when all steps after `index` are done.
    std::optional<TuloRoles> destination(int index, const Entry& entry) const
    {
        QString path = entry.path;
        for (int i = index + 1; i < m_pending.size(); ++i) {
            const MigrationStep& step = *m_pending[i].step;
            if (step.kind == MigrationStep::Kind::Rename && isAtOrBelow(path, step.target))
                path = step.to + path.mid(step.target.size());
        }
        return m_input.image.place(path);
    }

    // -----------------------------------------------------------------------------------------
    // What fits.
    // -----------------------------------------------------------------------------------------

    struct Obstacle
    {
        QString to;
        TuloValue after;
        QString cause;
        QString reason;
    };

    bool isChanged(const Entry& entry) const
    {
        return entry.path != entry.origin || entry.roles != originalOf(entry).roles;
    }

    // Entries begin as copies of the written files, in the same order.
    const Entry& originalOf(const Entry& entry) const
    {
        return entry.origin.isEmpty() ? entry : m_written[size_t(&entry - m_entries.data())];
    }

    // Why the image cannot take the entry as it is; puts its number into the kind that the setting
    // has, where nothing is lost.
    QString misfit(Entry* entry) const
    {
        if (m_isUndo)
            return QString();
        const std::optional<TuloRoles> place = m_input.image.place(entry->path);
        if (!place)
            return QStringLiteral("the image has no such setting");
        if (entry->roles.value().isEmpty())
            return QString();
        const ValidatedValue validated = validateChange(*place, entry->roles.value());
        if (validated.isAccepted && validated.reason.isEmpty())
            entry->roles.setValue(validated.value);
        else
            return validated.reason.isEmpty() ? QStringLiteral("the image rejects the value")
                                              : validated.reason;
        return QString();
    }

    // Why the file cannot be where it is to be.
    QString collision(const Entry& entry) const
    {
        if (m_damaged.contains(entry.path))
            return QStringLiteral("a damaged file is there");
        if (m_taken.value(entry.path) > 1)
            return QStringLiteral("another value is there");
        if (m_input.writtenDirectories.contains(entry.path)
            || m_takenDirectories.contains(entry.path))
            return QStringLiteral("a directory of written files is there");
        for (QString above = parentOf(entry.path); !above.isEmpty(); above = parentOf(above)) {
            if (m_taken.contains(above) || m_input.written.contains(above))
                return QStringLiteral("'%1' is a written file").arg(above);
        }
        return QString();
    }

    void findTaken()
    {
        m_taken.clear();
        m_takenDirectories.clear();
        for (const Entry& entry : m_entries) {
            if (entry.isRemoved)
                continue;
            ++m_taken[entry.path];
            for (QString above = parentOf(entry.path); !above.isEmpty(); above = parentOf(above))
                m_takenDirectories.insert(above);
        }
    }

    bool reduceWhatDoesNotFit()
    {
        findTaken();
        bool isReduced = false;
        for (Entry& entry : m_entries) {
            const bool isChangedEntry = isChanged(entry);
            if (entry.isRemoved || !(isChangedEntry || entry.mustFit))
                continue;
            QString reason = misfit(&entry);
            if (reason.isEmpty() && entry.path != entry.origin)
                reason = collision(entry);
            if (reason.isEmpty())
                continue;
            const QString key = keyOf(entry);
            // What only had to fit and has nothing to give way to stays without a word.
            if (isChangedEntry && modeOf(entry) == Mode::Newest) {
                m_obstacles.insert(key,
                                   { entry.path, entry.roles.value(),
                                     entry.causes.join(QStringLiteral(", ")), reason });
            }
            m_modes.insert(key, modeOf(entry) == Mode::Newest ? Mode::Before : Mode::Stay);
            isReduced = true;
        }
        return isReduced;
    }

    // -----------------------------------------------------------------------------------------
    // The result.
    // -----------------------------------------------------------------------------------------

    MigrationPlan result()
    {
        MigrationPlan plan;
        QMap<QString, std::optional<QByteArray>> contents;
        for (const Entry& entry : m_entries) {
            const Entry& original = originalOf(entry);
            const bool isWritten = !entry.origin.isEmpty();
            if (isWritten && (entry.isRemoved || entry.path != entry.origin))
                contents.insert(entry.origin, std::nullopt);
            if (entry.isRemoved || isChanged(entry)) {
                plan.values.append({ entry.origin, entry.isRemoved ? QString() : entry.path,
                                     isWritten ? original.roles.value() : TuloValue(),
                                     entry.isRemoved ? TuloValue() : entry.roles.value(),
                                     entry.causes, QString() });
            } else if (m_obstacles.contains(keyOf(entry))) {
                const Obstacle obstacle = m_obstacles.value(keyOf(entry));
                plan.values.append({ entry.origin,
                                     obstacle.to,
                                     entry.roles.value(),
                                     obstacle.after,
                                     { obstacle.cause },
                                     obstacle.reason });
            }
        }
        for (const Entry& entry : m_entries) {
            if (entry.isRemoved || !isChanged(entry))
                continue;
            const bool isSame = !entry.origin.isEmpty() && entry.roles == originalOf(entry).roles;
            contents.insert(entry.path,
                            isSame ? m_input.written.value(entry.origin)
                                   : writtenContent(entry.roles));
        }
        for (PlannedMigration& value : plan.values)
            hideSecret(&value);
        for (auto content = contents.cbegin(); content != contents.cend(); ++content)
            plan.changes.append({ content.key(), *content });
        plan.record = m_record;
        if (!hasChanged(m_input.record, m_record))
            plan.record.run = m_input.record.run;
        return plan;
    }

    bool isSecret(const QString& path) const
    {
        const std::optional<TuloRoles> place = m_input.image.place(path);
        return place && place->encrypted();
    }

    void hideSecret(PlannedMigration* value) const
    {
        // They are sorted, as they come from a map.
        const auto entry = std::lower_bound(
            m_written.cbegin(), m_written.cend(), value->from,
            [](const Entry& one, const QString& path) { return one.origin < path; });
        const bool isEncrypted =
            entry != m_written.cend() && entry->origin == value->from && entry->roles.encrypted();
        if (!isEncrypted && !isSecret(value->from) && !isSecret(value->to))
            return;
        value->before = TuloValue();
        value->after = TuloValue();
    }

    static bool hasChanged(MigrationRecord before, const MigrationRecord& after)
    {
        before.run = after.run;
        return before.toJson() != after.toJson();
    }

    const MigrationInput& m_input;
    const bool m_isUndo;
    const QHash<QString, QStringList> m_pathsById;
    std::vector<Entry> m_written;
    QSet<QString> m_damaged; ///< paths of files that hold no roles
    QHash<QString, Mode> m_modes; ///< by key, of what was reduced
    QHash<QString, Obstacle> m_obstacles; ///< by key

    // Of the round.
    std::vector<Entry> m_entries;
    QMultiHash<QString, int> m_at; ///< by path, removed ones too
    MigrationRecord m_record;
    QVector<PendingStep> m_pending;
    QHash<QString, int> m_taken;
    QSet<QString> m_takenDirectories;
};

} // namespace

MigrationPlan planMigration(const MigrationInput& input)
{
    return Planner(input, false).plan();
}

MigrationPlan planUndo(const MigrationInput& input)
{
    return Planner(input, true).plan();
}

} // namespace tulo
