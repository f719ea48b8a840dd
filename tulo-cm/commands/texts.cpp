#include "tulo-cm/command.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/progress.h"

#include "trees/texts.h"
#include "trees/treeoptions.h"
#include "trees/treereader.h"

#include <QFile>
#include <QSaveFile>

namespace tulo {
namespace {

const Option checkOption { "check", "",
                           "Change nothing; exit code 8 when a text is not translated" };

bool hasContent(const QString& fileName, const QByteArray& content)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) && file.readAll() == content;
}

int update(const QString& fileName, const QByteArray& content, Output& output)
{
    if (hasContent(fileName, content))
        return Done;
    QSaveFile file(fileName);
    if (file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.commit())
        return Done;
    return output.report(Failed, "Failed",
                         QStringLiteral("cannot write '%1': %2").arg(fileName, file.errorString()),
                         QString());
}

void print(const QString& fileName, const CatalogueState& state, Output& output)
{
    if (output.isJson()) {
        output.object({ { QStringLiteral("catalogue"), fileName },
                        { QStringLiteral("finished"), state.finished },
                        { QStringLiteral("unfinished"), state.unfinished },
                        { QStringLiteral("vanished"), state.vanished } });
    } else {
        output.line(QStringLiteral("%1: %2 finished, %3 unfinished, %4 vanished")
                        .arg(fileName, QString::number(state.finished),
                             QString::number(state.unfinished), QString::number(state.vanished)));
    }
}

int run(Context& context, const Arguments& arguments)
{
    const QString tree = arguments.positional.first();
    const QString problem = checkDirectory(tree);
    if (!problem.isEmpty())
        return context.output.reportUsage(problem);
    const Progress progress(QStringLiteral("reading texts"));
    // Its texts would count as vanished.
    int code = reportDefects(context.output, TreeReader(tree, QString(), QString()));
    if (code != Done)
        return code;
    const QVector<TreeText> texts = textsOf(tree);
    for (const QString& fileName : arguments.positional.mid(1)) {
        const CatalogueState state = updatedCatalogue(fileName, tree, texts);
        if (!state.error.isEmpty()) {
            code =
                firstFailure(code, context.output.report(Failed, "Failed", state.error, QString()));
            continue;
        }
        print(fileName, state, context.output);
        if (!arguments.isSet(checkOption))
            code = firstFailure(code, update(fileName, state.content, context.output));
        else if (state.unfinished > 0)
            code = firstFailure(code, Findings);
    }
    return code;
}

} // namespace

namespace commands {

Command texts()
{
    return {
        "texts",
        "",
        { { "TREE", Argument::Count::One, Argument::Kind::Directory },
          { "CATALOGUE", Argument::Count::OneOrMore, Argument::Kind::File } },
        { checkOption },
        "Updates translation catalogues with the texts of a default tree: new texts are added,\n"
        "vanished ones marked, translations kept. Catalogues are those of Qt Linguist, *.ts; one\n"
        "that does not exist is made, for the language that its name ends in (settings_fi.ts).\n"
        "Needs lupdate, of the package qttools5-dev-tools; lrelease makes what --catalogues reads.",
        "texts settings-default translations/settings_de.ts",
        Command::Where::CommandLine,
        Command::Needs::Nothing,
        Command::Runs::ToItsEnd,
        run
    };
}

} // namespace commands

} // namespace tulo
