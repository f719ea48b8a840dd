#include "tulo-cm/command.h"
#include "tulo-cm/place.h"
#include "tulo-cm/waiting.h"

#include "trees/treecheck.h"

#include <tulo/settings.h>

#include <QFileInfo>

#include <algorithm>

namespace tulo {
namespace {

struct Directories
{
    QString defaultPath;
    QString writePath;
};

// Where the trees are, for a process that may not find them there.
Error findDirectories(const Context& context, Directories* directories)
{
    const EngineOptions& engine = context.place.engine;
    *directories = { engine.defaultPath, engine.writePath };
    if (context.settings == nullptr)
        return {};
    const auto status = finished(context.settings->status());
    if (status.error())
        return status.error();
    *directories = { status.value().defaultPath, status.value().writePath };
    // An empty name would stand for the current folder.
    if (!directories->defaultPath.isEmpty() && !directories->writePath.isEmpty())
        return {};
    return { ErrorCode::Internal,
             QStringLiteral("the service does not say where its directories are"), QString() };
}

Error validateDirectory(const QString& path)
{
    const QFileInfo directory(path);
    if (directory.isDir() && directory.isReadable() && directory.isExecutable())
        return {};
    return { ErrorCode::Unavailable, QStringLiteral("directory '%1' cannot be read").arg(path),
             QString() };
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

int check(const Directories& directories, Output& output)
{
    const QVector<TreeFinding> findings =
        inspectTrees(directories.defaultPath, directories.writePath);
    for (const TreeFinding& finding : findings)
        print(finding, output);
    const auto harmless =
        std::count_if(findings.cbegin(), findings.cend(), [](const TreeFinding& finding) {
            return finding.effect == TreeFinding::Effect::Harmless;
        });
    if (!output.isJson()) {
        output.note(QStringLiteral("checked '%1' and '%2'; findings: %3, harmless: %4")
                        .arg(directories.defaultPath, directories.writePath,
                             QString::number(findings.size() - harmless),
                             QString::number(harmless)));
    }
    return findings.size() == harmless ? Done : Findings;
}

int run(Context& context, const Arguments&)
{
    Directories directories;
    Error error = findDirectories(context, &directories);
    for (const QString& path : { directories.defaultPath, directories.writePath }) {
        if (!error)
            error = validateDirectory(path);
    }
    return error ? context.output.report(error) : check(directories, context.output);
}

} // namespace

namespace commands {

Command check()
{
    return { "check",
             "",
             {},
             {},
             "Prints what is wrong in the two trees. In the default tree: files that do not parse "
             "or\nare not an object, values without a kind or outside their constraints, names "
             "that no\nlisting shows. In the writable tree: files that do not parse or are not an "
             "object, links,\ntemporary files of interrupted writes (harmless). In both: special "
             "files, files of more\nthan 1 MiB, what is too deep, and what cannot be read or "
             "written: by this user, or, run\nby root, by the owner of the writable tree as far "
             "as owner, group and mode tell.",
             "check",
             Command::Where::Anywhere,
             Command::Needs::Trees,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
