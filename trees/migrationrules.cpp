#include "trees/migrationrules.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/locatedjson.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"

#include "api/core/tulovalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <optional>

namespace tulo {

namespace {

using Kind = MigrationStep::Kind;

// One step as the file has it: an object whose first word says what it does.
struct StepForm
{
    Kind kind;
    const char* name;
    QStringList others; ///< that may stand beside it
};

const QVector<StepForm>& stepForms()
{
    static const QVector<StepForm> forms {
        { Kind::Rename, "rename", { QStringLiteral("to") } },
        { Kind::Clamp, "clamp", {} },
        { Kind::Remove, "remove", {} },
        { Kind::Map, "map", { QStringLiteral("values") } },
        { Kind::Convert, "convert", { QStringLiteral("kind"), QStringLiteral("scale") } },
    };
    return forms;
}

// ---------------------------------------------------------------------------------------------
// One file. The first fault ends the reading: a file that is wrong in one place is not carried out
// in another.
// ---------------------------------------------------------------------------------------------

class Reader
{
public:
    Reader(const QString& fileName, const QByteArray& text)
        : m_fileName(fileName)
        , m_document(parseLocated(text))
    {
    }

    QString read(QVector<MigrationStep>* steps)
    {
        if (!m_document.isValid())
            return message(m_document.errorPosition, m_document.error);
        if (!m_document.duplicates.isEmpty()) {
            const auto& [pointer, position] = m_document.duplicates.first();
            return message(position, QStringLiteral("'%1' stands here twice").arg(nameOf(pointer)));
        }
        if (m_document.value.userType() != QMetaType::QVariantList)
            return fault(QString(),
                         QStringLiteral("rules are a list of steps, in \"[\" and \"]\""));
        const QVariantList list = m_document.value.toList();
        for (int i = 0; i < list.size() && m_fault.isEmpty(); ++i)
            steps->append(readStep(pointerTo(QString(), i), list[i]));
        return m_fault;
    }

private:
    QString message(const TextPosition& position, const QString& reason) const
    {
        return QStringLiteral("%1:%2:%3: %4")
            .arg(m_fileName, QString::number(position.line), QString::number(position.column),
                 reason);
    }

    // Keeps the first one.
    QString fault(const QString& pointer, const QString& reason)
    {
        if (m_fault.isEmpty())
            m_fault = message(m_document.position(pointer), reason);
        return m_fault;
    }

    MigrationStep readStep(const QString& at, const QVariant& content)
    {
        MigrationStep step;
        const QVariantHash entries = content.toHash();
        const StepForm* form = nullptr;
        for (const StepForm& known : stepForms()) {
            if (!entries.contains(QLatin1String(known.name)))
                continue;
            if (form != nullptr) {
                fault(at,
                      QStringLiteral("a step has one of '%1' and '%2'")
                          .arg(QLatin1String(form->name), QLatin1String(known.name)));
                return step;
            }
            form = &known;
        }
        if (form == nullptr) {
            fault(at,
                  QStringLiteral("a step is an object with 'rename', 'clamp', 'remove', 'map' "
                                 "or 'convert'"));
            return step;
        }
        const QString name = QLatin1String(form->name);
        QStringList keys = entries.keys();
        std::sort(keys.begin(), keys.end());
        for (const QString& key : keys) {
            if (key != name && !form->others.contains(key))
                fault(pointerTo(at, key), QStringLiteral("'%1' has no '%2'").arg(name, key));
        }
        step.kind = form->kind;
        step.target =
            readTarget(pointerTo(at, name), entries.value(name), form->kind == Kind::Rename);
        if (form->kind == Kind::Rename)
            readRename(at, entries, &step);
        else if (form->kind == Kind::Map)
            readMap(at, entries, &step);
        else if (form->kind == Kind::Convert)
            readConvert(at, entries, &step);
        return step;
    }

    QString readTarget(const QString& at, const QVariant& content, bool isPathOnly)
    {
        QString text = content.toString();
        if (content.userType() != QMetaType::QString || text.isEmpty())
            fault(at, QStringLiteral("expected a setting path such as \"/audio/volume\""));
        else if (text.startsWith(separator) ? !isSettingPath(text, !isPathOnly) : isPathOnly)
            fault(at,
                  QStringLiteral("'%1' is not a setting path such as \"/audio/volume\"")
                      .arg(shownPath(text)));
        return text;
    }

    static bool isSettingPath(const QString& path, bool mayBeTop)
    {
        if (path == QString(separator))
            return mayBeTop;
        return !checkPath(QStringLiteral("/settings") + path);
    }

    void readRename(const QString& at, const QVariantHash& entries, MigrationStep* step)
    {
        const QString name = QStringLiteral("to");
        step->to = readTarget(entries.contains(name) ? pointerTo(at, name) : at,
                              entries.value(name), true);
        const QString from = step->target + separator;
        const QString to = step->to + separator;
        if (from.startsWith(to) || to.startsWith(from)) {
            fault(pointerTo(at, name),
                  QStringLiteral("'%1' and '%2' are not apart").arg(step->target, step->to));
        }
    }

    void readMap(const QString& at, const QVariantHash& entries, MigrationStep* step)
    {
        const QString name = QStringLiteral("values");
        const QString values = entries.contains(name) ? pointerTo(at, name) : at;
        const QVariantList pairs = entries.value(name).toList();
        if (pairs.isEmpty())
            fault(values, QStringLiteral("expected 'values', a list of pairs [OLD, NEW]"));
        for (int i = 0; i < pairs.size(); ++i) {
            const QVariantList pair = pairs[i].toList();
            const bool isPair = pair.size() == 2
                && std::none_of(pair.cbegin(), pair.cend(), [](const QVariant& content) {
                                    return TuloValue::ofContent(content).isEmpty();
                                });
            if (!isPair)
                fault(pointerTo(values, i), QStringLiteral("expected a pair [OLD, NEW]"));
            else
                step->values.append({ pair[0], pair[1] });
        }
    }

    void readConvert(const QString& at, const QVariantHash& entries, MigrationStep* step)
    {
        const QString name = QStringLiteral("kind");
        const QString scale = QStringLiteral("scale");
        step->valueKind = entries.value(name).toString();
        const bool isNumber = isNumberKind(step->valueKind);
        if (!isNumber && step->valueKind != TuloValue::String()) {
            fault(entries.contains(name) ? pointerTo(at, name) : at,
                  QStringLiteral("expected 'kind', one of \"int\", \"double\" and \"string\""));
        }
        if (!entries.contains(scale))
            return;
        const TuloValue number =
            TuloValue::ofContent(entries.value(scale)).convertedTo(TuloValue::Double());
        step->scale = number.content().toDouble();
        if (!isNumber || !std::isfinite(step->scale) || step->scale == 0)
            fault(pointerTo(at, scale), QStringLiteral("'scale' is a number, for a number's kind"));
    }

    const QString m_fileName;
    const LocatedJson m_document;
    QString m_fault;
};

QString readText(const QString& fileName, QByteArray* text)
{
    QFile file(fileName);
    // The size first: a pipe would never end, nor open.
    if (!QFileInfo(fileName).isFile())
        return fileName + QStringLiteral(": is not a regular file");
    if (!file.open(QIODevice::ReadOnly))
        return fileName + QStringLiteral(": ") + file.errorString();
    *text = file.read(FileProbe::maximumFileBytes + 1);
    if (file.error() != QFileDevice::NoError)
        return fileName + QStringLiteral(": ") + file.errorString();
    if (text->size() > FileProbe::maximumFileBytes)
        return fileName + QStringLiteral(": is larger than 1 MiB");
    return QString();
}

} // namespace

QString parseMigration(const QString& fileName, const QByteArray& text, Migration* migration)
{
    static const QRegularExpression form(QStringLiteral("\\A([0-9]{4})-[A-Za-z0-9_-]+\\.json\\z"));
    const QRegularExpressionMatch match = form.match(nameOf(fileName));
    if (!match.hasMatch())
        return fileName + QStringLiteral(": is not named like \"0001-drive-mode.json\"");
    Migration read;
    read.name = nameOf(fileName).chopped(int(qstrlen(".json")));
    read.number = match.captured(1).toInt();
    QString fault = Reader(fileName, text).read(&read.steps);
    if (fault.isEmpty())
        *migration = read;
    return fault;
}

QString readMigrations(const QString& directory, QVector<Migration>* migrations)
{
    const QFileInfo place(directory);
    if (!place.exists() && !place.isSymLink())
        return QString();
    if (!place.isDir() || !place.isReadable() || !place.isExecutable())
        return QStringLiteral("%1: is not a directory that can be read").arg(directory);
    // Hidden ones are left to editors and package managers; any other name is meant.
    const QStringList names = QDir(directory).entryList(
        QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    QVector<Migration> read;
    for (const QString& name : names) {
        const QString fileName = directory + separator + name;
        QByteArray text;
        Migration migration;
        QString fault = readText(fileName, &text);
        if (fault.isEmpty())
            fault = parseMigration(fileName, text, &migration);
        if (fault.isEmpty() && !read.isEmpty() && read.last().number == migration.number) {
            fault = QStringLiteral("%1: has the same number as '%2'; use another one")
                        .arg(fileName, read.last().name);
        }
        if (!fault.isEmpty())
            return fault;
        read.append(migration);
    }
    *migrations = read;
    return QString();
}

QString migrationsBeside(const QString& defaultPath)
{
    const QFileInfo tree(defaultPath);
    return QFileInfo(tree.exists() ? tree.canonicalFilePath()
                                   : QDir::cleanPath(tree.absoluteFilePath()))
        .dir()
        .filePath(QStringLiteral("settings-migrations"));
}

// ---------------------------------------------------------------------------------------------
// What they cover.
// ---------------------------------------------------------------------------------------------

namespace {

bool isAbout(const MigrationStep& step, const ImageChange& change)
{
    if (!step.target.startsWith(separator))
        return !change.id.isEmpty() && step.target == change.id;
    return isAtOrBelow(change.path, step.target) || isAtOrBelow(change.newPath, step.target);
}

bool covers(const MigrationStep& step, const ImageChange& change)
{
    if (!isAbout(step, change))
        return false;
    switch (change.kind) {
    case ImageChange::Kind::Removed:
        return step.kind == Kind::Remove
            || (step.kind == Kind::Rename && isAtOrBelow(change.path, step.target));
    case ImageChange::Kind::Narrowed:
        return step.kind == Kind::Clamp || step.kind == Kind::Map || step.kind == Kind::Convert
            || step.kind == Kind::Remove;
    case ImageChange::Kind::KindChanged:
        return step.kind == Kind::Map || step.kind == Kind::Convert || step.kind == Kind::Remove;
    case ImageChange::Kind::MadeReadOnly:
        return step.kind == Kind::Remove;
    }
    return false;
}

} // namespace

bool covers(const QVector<Migration>& migrations, const ImageChange& change)
{
    return std::any_of(migrations.cbegin(), migrations.cend(), [&](const Migration& migration) {
        return std::any_of(migration.steps.cbegin(), migration.steps.cend(),
                           [&](const MigrationStep& step) { return covers(step, change); });
    });
}

} // namespace tulo
