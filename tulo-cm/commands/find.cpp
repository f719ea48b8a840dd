#include "tulo-cm/command.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/shownroles.h"

#include <QRegularExpression>

#include <algorithm>

namespace tulo {
namespace {

constexpr Option changedOption { "changed", "", "only settings that differ from their defaults" };
QStringList places()
{
    return { QStringLiteral("path"), QStringLiteral("title"), QStringLiteral("description") };
}

QVector<ListedWord> placeWords()
{
    QVector<ListedWord> words;
    for (const QString& place : places())
        words.append({ place, QString() });
    return words;
}

constexpr Option inOption { "in",
                            "WHERE",
                            "search only these, of path,title,description; all by default",
                            "",
                            WordKind::ListedMany,
                            placeWords };

// So that no pattern runs for long: an ordinary one takes a few steps a character.
constexpr int maximumPatternLength = 1000;
const QLatin1String stepLimit("(*LIMIT_MATCH=100000)");

/// What is searched for: a text, whatever its case, or a regular expression between slashes.
class Search
{
public:
    /// Sets `error` when TEXT is not one.
    Search(const QString& text, QString* error)
        : m_text(text)
        , m_isPattern(text.size() > 2 && text.startsWith(QLatin1Char('/'))
                      && text.endsWith(QLatin1Char('/')))
    {
        if (m_text.isEmpty())
            *error = QStringLiteral("nothing to search for");
        if (!m_isPattern)
            return;
        const QString pattern = text.mid(1, text.size() - 2);
        m_pattern.setPattern(stepLimit + pattern);
        m_pattern.setPatternOptions(QRegularExpression::UseUnicodePropertiesOption);
        if (pattern.size() > maximumPatternLength) {
            *error =
                QStringLiteral("a pattern has at most %1 characters").arg(maximumPatternLength);
        } else if (!m_pattern.isValid()) {
            const int offset = std::max(m_pattern.patternErrorOffset() - stepLimit.size(), 0);
            *error = QStringLiteral("'%1' is not a regular expression: %2 at character %3")
                         .arg(pattern, m_pattern.errorString())
                         .arg(offset + 1);
        }
    }

    /// Sets `isCostly` when the pattern takes too many steps.
    bool isIn(const QString& text, bool* isCostly) const
    {
        if (!m_isPattern)
            return text.contains(m_text, Qt::CaseInsensitive);
        const QRegularExpressionMatch match = m_pattern.match(text);
        *isCostly = *isCostly || !match.isValid();
        return match.hasMatch();
    }

private:
    const QString m_text;
    const bool m_isPattern;
    QRegularExpression m_pattern;
};

QStringList chosenPlaces(const Arguments& arguments, QString* error)
{
    if (!arguments.isSet(inOption))
        return places();
    QStringList chosen = arguments.value(inOption).split(QLatin1Char(','));
    for (const QString& place : qAsConst(chosen)) {
        if (!places().contains(place)) {
            *error = QStringLiteral("'--in' takes some of %1, not '%2'")
                         .arg(places().join(QLatin1Char(',')), place);
        }
    }
    return chosen;
}

QStringList textsOf(const VisitedNode& node, const QStringList& chosen)
{
    QStringList texts;
    if (chosen.contains(QLatin1String("path")))
        texts.append(node.path);
    if (chosen.contains(QLatin1String("title")))
        texts.append(node.roles.value(QStringLiteral("title")).toString());
    if (chosen.contains(QLatin1String("description"))) {
        texts.append(node.roles.value(QStringLiteral("description")).toString());
        texts.append(node.roles.value(QStringLiteral("longDescription")).toString());
    }
    return texts;
}

void print(const VisitedNode& node, Output& output, QVector<TableRow>* lines)
{
    const bool isEncrypted = node.roles.value(roles::encrypted()).toBool();
    const QString title = node.roles.value(QStringLiteral("title")).toString();
    if (output.isJson()) {
        QVariantMap found { { QStringLiteral("title"), title },
                            { roles::type(), node.roles.value(roles::type()) } };
        if (isEncrypted)
            found.insert(roles::encrypted(), true);
        else if (node.roles.contains(roles::value()))
            found.insert(roles::value(), node.roles.value(roles::value()));
        output.object(nodeObject(node.path, roleObject(found)));
        return;
    }
    const QString value =
        isEncrypted ? QStringLiteral("(encrypted)") : shownInCell(node.roles.value(roles::value()));
    const QStringList cells = node.isDirectory
        ? QStringList { node.path + QLatin1Char('/'), QString(), shownInCell(title) }
        : QStringList { node.path, value, shownInCell(title) };
    lines->append(markedRow(cells, node.roles, node.isDirectory));
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const Paging paging(output);
    QString error;
    const Search search(arguments.positional.first(), &error);
    const QStringList chosen = chosenPlaces(arguments, &error);
    if (!error.isEmpty())
        return output.reportUsage(error);

    const bool onlyChanged = arguments.isSet(changedOption);
    bool isCostly = false;
    QVector<TableRow> lines;
    const auto visit = [&](const VisitedNode& node) {
        if (onlyChanged && (node.isDirectory || !isChanged(node.roles)))
            return true;
        const QStringList texts = textsOf(node, chosen);
        const bool isFound = std::any_of(texts.cbegin(), texts.cend(), [&](const QString& text) {
            return search.isIn(text, &isCostly);
        });
        if (isFound && !isCostly)
            print(node, output, &lines);
        return !isCostly && !output.isClosed() && !output.hasFailed();
    };
    const QStringList names {
        roles::value(),          roles::defaultValue(),         roles::encrypted(),
        QStringLiteral("title"), QStringLiteral("description"), QStringLiteral("longDescription")
    };
    const int exitCode =
        walk(*context.settings, topPath(), neededRoles(output, names, true), output, visit);
    output.table({}, lines);
    if (isCostly) {
        return output.reportUsage(
            QStringLiteral("the pattern takes too many steps; repeat less inside of repetitions"));
    }
    return exitCode;
}

} // namespace

namespace commands {

Command find()
{
    return { "find",
             "",
             { { "TEXT" } },
             { changedOption, inOption },
             "Searches settings and directories: prints those in whose path, title or description "
             "TEXT\noccurs, in any case, with their values and titles. /TEXT/ is a Perl-compatible "
             "regular\nexpression; (?i) at its beginning ignores case. Ends with 0 when nothing is "
             "found, too.\nValues of encrypted settings are not printed. On a terminal \"*\" marks "
             "changed settings,\n\"=\" read-only ones.",
             "find volume --in path,title",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
