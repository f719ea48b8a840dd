#include "commands.h"

#include "trees/treecheck.h"

#include <QFileInfo>

#include <algorithm>

namespace tulo {

namespace {

Failure checkDirectory(const QString& path)
{
    const QFileInfo directory(path);
    if (directory.isDir() && directory.isReadable() && directory.isExecutable())
        return {};
    return { Unavailable, QStringLiteral("NoAccess"),
             QStringLiteral("directory '%1' cannot be read").arg(path), QString() };
}

void print(const TreeFinding& finding, Output& output)
{
    if (output.isJson()) {
        output.object({ { QStringLiteral("file"), finding.file },
                        { QStringLiteral("finding"), findingName(finding.kind) },
                        { QStringLiteral("message"), finding.message } });
    } else {
        output.line(finding.file + QStringLiteral(": ") + finding.message);
    }
}

} // namespace

int runCheck(Context& context, const Arguments&)
{
    Answer<TreeDirectories> trees { context.trees, {} };
    if (context.trees.defaultPath.isEmpty())
        trees = context.session->directories();
    for (const QString& path : { trees.value.defaultPath, trees.value.writePath }) {
        if (!trees.failure)
            trees.failure = checkDirectory(path);
    }
    if (trees.failure) {
        context.output.failure(trees.failure);
        return trees.failure.exitCode;
    }

    const QVector<TreeFinding> findings =
        inspectTrees(trees.value.defaultPath, trees.value.writePath);
    for (const TreeFinding& finding : findings)
        print(finding, context.output);
    const auto harmless =
        std::count_if(findings.cbegin(), findings.cend(), [](const TreeFinding& finding) {
            return finding.effect == TreeFinding::Effect::Harmless;
        });
    if (!context.output.isJson()) {
        context.output.note(QStringLiteral("checked '%1' and '%2'; findings: %3, harmless: %4")
                                .arg(trees.value.defaultPath, trees.value.writePath,
                                     QString::number(findings.size() - harmless),
                                     QString::number(harmless)));
    }
    return findings.size() == harmless ? Done : Findings;
}

} // namespace tulo
