#include "tulo-cm/tabcompletion.h"

#include "tulo-cm/completion.h"
#include "tulo-cm/settingssource.h"
#include "tulo-cm/textinput.h"

#include <algorithm>

namespace tulo {
namespace {

// As long as a person waits for a key.
constexpr int maximumMs = 150;

QString commonPart(const QVector<Candidate>& candidates)
{
    QString common = candidates.first().word;
    for (const Candidate& candidate : candidates) {
        const auto end = std::mismatch(common.cbegin(), common.cend(), candidate.word.cbegin(),
                                       candidate.word.cend());
        common.truncate(int(end.first - common.cbegin()));
    }
    // No half of a character beyond the first plane.
    if (!common.isEmpty() && common.at(common.size() - 1).isHighSurrogate())
        common.chop(1);
    return common;
}

// Of a path the last name.
QString shownName(const QString& word)
{
    return word.mid(word.lastIndexOf(QLatin1Char('/'), -2) + 1);
}

void list(Output& output, const QVector<Candidate>& candidates)
{
    QVector<QStringList> rows;
    for (const Candidate& candidate : candidates)
        rows.append({ shownName(candidate.word), candidate.description });
    output.list(rows);
    output.flush();
}

} // namespace

LineEditor::Edit completeLine(Context& context, const QString& line)
{
    const TypedLine typed = splitTyped(line);
    SettingsSource source(*context.settings, maximumMs);
    const CompletionPlace place { true, context.directory, &source };
    const QVector<Candidate> candidates = complete(typed.words, place).candidates;
    if (candidates.isEmpty())
        return {};
    const QString common = commonPart(candidates);
    if (candidates.size() > 1 && common.size() <= typed.words.last().size()) {
        list(context.output, candidates);
        return {};
    }
    const QString quote = typed.quote.isNull() ? QString() : QString(typed.quote);
    QString word = quote + quoted(common, typed.quote);
    if (candidates.size() == 1 && !candidates.first().isOpen)
        word += quote + QLatin1Char(' ');
    return { line.size() - typed.wordStart, word };
}

} // namespace tulo
