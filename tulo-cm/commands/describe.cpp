#include "tulo-cm/command.h"
#include "tulo-cm/constraints.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include "trees/nodenames.h"
#include "trees/printable.h"

#include <tulo/settings.h>

#include <QHash>
#include <QRegularExpression>

#include <algorithm>

namespace tulo {
namespace {

constexpr Option markdownOption { "markdown", "",
                                  "the manual of everything at and below PATH, in Markdown" };

const QStringList& describedRoles()
{
    static const QStringList names { QStringLiteral("title"),
                                     QStringLiteral("description"),
                                     QStringLiteral("longDescription"),
                                     QStringLiteral("valueUnit"),
                                     roles::value(),
                                     roles::defaultValue(),
                                     roles::type(),
                                     QStringLiteral("id"),
                                     roles::edit(),
                                     roles::modifiable(),
                                     QStringLiteral("disabled"),
                                     roles::encrypted(),
                                     QStringLiteral("permission") };
    return names;
}

// ---------------------------------------------------------------------------------------------
// What is said about a setting or directory. Its value is not: that is for "get".
// ---------------------------------------------------------------------------------------------

struct Fact
{
    const char* name;
    QString text;
};

QString textOf(const QVariantMap& roles, const char* role)
{
    return roles.value(QLatin1String(role)).toString();
}

QString withUnit(const QString& text, const QVariantMap& roles)
{
    const QString unit = textOf(roles, "valueUnit");
    return unit.isEmpty() ? text : text + QLatin1Char(' ') + unit;
}

QVector<Fact> factsOfDirectory(const QVariantMap& roles)
{
    QVector<Fact> facts;
    if (isReadOnly(roles))
        facts.append({ "new settings", QStringLiteral("cannot be made here") });
    else if (roles.contains(roles::edit()) || roles.contains(roles::defaultValue()))
        facts.append({ "new settings", valuesInWords(roles) });
    return facts;
}

QVector<Fact> factsOfSetting(const QVariantMap& roles)
{
    const bool isEncrypted = roles.value(roles::encrypted()).toBool();
    QVector<Fact> facts;
    facts.append({ "values", valuesInWords(roles) });
    const QString unit = textOf(roles, "valueUnit");
    if (!unit.isEmpty())
        facts.append({ "unit", unit });
    if (!isEncrypted && roles.contains(roles::defaultValue()))
        facts.append(
            { "default", withUnit(shownInCell(roles.value(roles::defaultValue())), roles) });
    const QString id = textOf(roles, "id");
    if (!id.isEmpty())
        facts.append({ "id", id });
    if (isReadOnly(roles))
        facts.append({ "changes", QStringLiteral("read-only: the image fixes it") });
    if (roles.value(QStringLiteral("disabled")).toBool())
        facts.append({ "disabled", QStringLiteral("shown, but without effect") });
    if (isEncrypted)
        facts.append({ "encrypted", QStringLiteral("kept encrypted where the device has a key") });
    return facts;
}

QVector<Fact> factsOf(const QVariantMap& roles)
{
    return isDirectory(roles) ? factsOfDirectory(roles) : factsOfSetting(roles);
}

/// The description, then the longer one, in paragraphs.
QStringList paragraphsOf(const QVariantMap& roles)
{
    QStringList paragraphs;
    for (const char* role : { "description", "longDescription" }) {
        const QStringList lines = textOf(roles, role).split(QLatin1Char('\n'));
        for (const QString& line : lines) {
            if (!line.trimmed().isEmpty())
                paragraphs.append(line);
        }
    }
    return paragraphs;
}

// ---------------------------------------------------------------------------------------------
// One node.
// ---------------------------------------------------------------------------------------------

void printText(const QString& path, const QVariantMap& roles, Output& output)
{
    output.line(textOf(roles, "title"));
    for (const QString& paragraph : paragraphsOf(roles))
        output.line(paragraph);
    QVector<QStringList> lines { { QStringLiteral("path"), path } };
    for (const Fact& fact : factsOf(roles))
        lines.append({ QLatin1String(fact.name), fact.text });
    output.list(lines);
}

void printObject(const QString& path, const QVariantMap& roles, Output& output)
{
    QVariantMap described = roles;
    described.remove(roles::value());
    if (roles.value(roles::encrypted()).toBool())
        described.remove(roles::defaultValue());
    QVariantMap object = nodeObject(path, roleObject(described));
    if (!isDirectory(roles))
        object.insert(QStringLiteral("values"), valuesInWords(roles));
    output.object(object);
}

// ---------------------------------------------------------------------------------------------
// The manual.
// ---------------------------------------------------------------------------------------------

// As it is printed, whatever Markdown would make of it.
QString markdown(const QString& text)
{
    static const QString special = QStringLiteral("\\`*_[]<>#|~&");
    QString result;
    for (const QChar character : escaped(text)) {
        if (special.contains(character))
            result += QLatin1Char('\\');
        result += character;
    }
    return result;
}

// The same at the beginning of a line, where it could begin a list or a heading.
QString paragraph(const QString& text)
{
    static const QRegularExpression mark(QStringLiteral("^(\\s*[0-9]*)([-+=.)])"));
    return markdown(text).replace(mark, QStringLiteral("\\1\\\\2"));
}

// Between backquotes nothing is special but backquotes, of which paths have none.
QString code(const QString& text)
{
    return QLatin1Char('`') + escaped(text) + QLatin1Char('`');
}

QString heading(int depth)
{
    constexpr int deepest = 6;
    return QString(std::min(depth + 1, deepest), QLatin1Char('#'));
}

void printSection(const VisitedNode& node, Output& output)
{
    output.text(heading(node.depth) + QLatin1Char(' ') + markdown(textOf(node.roles, "title"))
                + QLatin1Char('\n'));
    output.text(code(node.path) + QLatin1Char('\n'));
    for (const QString& text : paragraphsOf(node.roles))
        output.text(paragraph(text) + QLatin1Char('\n'));
    const QVector<Fact> facts = factsOf(node.roles);
    for (const Fact& fact : facts) {
        QString name = QLatin1String(fact.name);
        name[0] = name.at(0).toUpper();
        output.text(QStringLiteral("- %1: ").arg(name) + markdown(fact.text));
    }
    if (!facts.isEmpty())
        output.text(QString());
}

/// Knows the files of variants, which listings show like settings: beside the setting whose name
/// they continue, and with its id or, where there is none, its title.
class Variants
{
public:
    bool isVariant(const VisitedNode& node)
    {
        const QString id = textOf(node.roles, "id");
        const QString mark = id.isEmpty() ? QLatin1Char('/') + textOf(node.roles, "title") : id;
        m_marks.insert(node.path, mark);
        const QStringList plainPaths = plainPathsOf(node.path);
        return std::any_of(plainPaths.cbegin(), plainPaths.cend(),
                           [&](const QString& plain) { return m_marks.value(plain) == mark; });
    }

private:
    QHash<QString, QString> m_marks; ///< by path, of all settings so far
};

int printManual(Context& context, const QString& path)
{
    Output& output = context.output;
    Variants variants;
    const auto visit = [&output, &variants](const VisitedNode& node) {
        if (node.isDirectory || !variants.isVariant(node))
            printSection(node, output);
        return !output.isClosed() && !output.hasFailed();
    };
    return walk(*context.settings, path, describedRoles(), output, visit);
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const Paging paging(output);
    const QString path = arguments.positional.value(0, context.start());
    if (arguments.isSet(markdownOption)) {
        return output.isJson()
            ? output.reportUsage(QStringLiteral("'--markdown' and '--json' exclude each other"))
            : printManual(context, path);
    }
    const auto reply = finished(context.settings->get(path, describedRoles()));
    if (reply.error())
        return output.report(reply.error());
    if (output.isJson())
        printObject(path, reply.value(), output);
    else
        printText(path, reply.value(), output);
    return Done;
}

} // namespace

namespace commands {

Command describe()
{
    return { "describe",
             "",
             { { "PATH", Argument::Count::Optional, Argument::Kind::Path } },
             { markdownOption },
             "Prints what a setting or directory is: its texts, the values it can have, its "
             "default, id and\nflags; /settings when no path is given. With --markdown the manual "
             "of everything at and below\nit, in which a setting has one section whatever "
             "product variants there are.",
             "describe /settings/audio/volume",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
