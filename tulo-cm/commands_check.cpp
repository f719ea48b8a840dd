#include "commands.h"

#include "host/treecheck.h"

int runCheck(Context& context, const Arguments&)
{
    const QString directory =
        context.defaultPath.isEmpty() ? context.session->defaultPath() : context.defaultPath;
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
