#include "commands.h"

#include "host/treecheck.h"

int runCheck(Context& context, const Arguments&)
{
    QString directory = context.defaultPath;
    if (directory.isEmpty()) {
        const Answer<TreeDirectories> answer = context.session->directories();
        if (answer.failure) {
            context.output.failure(answer.failure);
            return answer.failure.exitCode;
        }
        directory = answer.value.defaultPath;
    }
    const QVector<TreeFinding> findings = checkDefaultTree(directory);
    for (const TreeFinding& finding : findings) {
        const QString file = directory + QLatin1Char('/') + finding.file;
        if (context.output.isJson()) {
            context.output.object({ { QStringLiteral("file"), file },
                                    { QStringLiteral("finding"), findingName(finding.kind) },
                                    { QStringLiteral("message"), finding.message } });
        } else {
            context.output.line(file + QStringLiteral(": ") + finding.message);
        }
    }
    return findings.isEmpty() ? Done : Findings;
}
