#include "tulo-cm/command.h"
#include "tulo-cm/place.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/waiting.h"

#include "trees/migrationrules.h"
#include "trees/misspelling.h"
#include "trees/ruleexceptions.h"
#include "trees/rules.h"
#include "trees/treecheck.h"
#include "trees/treecompare.h"
#include "trees/treeoptions.h"
#include "trees/treestamp.h"

#include <tulo/settings.h>

#include <QDir>
#include <QFileInfo>
#include <QTranslator>

#include <algorithm>
#include <array>
#include <optional>

namespace tulo {
namespace {

QVector<ListedWord> rules()
{
    QVector<ListedWord> words;
    for (const Rule& rule : allRules())
        words.append({ QLatin1String(rule.name), QString::fromUtf8(rule.sentence) });
    return words;
}

QVector<ListedWord> rulesWithSeverities()
{
    QVector<ListedWord> words;
    for (const ListedWord& rule : rules()) {
        for (const Severity severity :
             { Severity::Off, Severity::Info, Severity::Warning, Severity::Error })
            words.append(
                { rule.word + QLatin1Char('=') + severityName(severity), rule.description });
    }
    return words;
}

QVector<ListedWord> formats()
{
    return { { QStringLiteral("text"), QStringLiteral("the default") },
             { QStringLiteral("json"), QStringLiteral("one object a line") } };
}

constexpr Option ruleOption {
    "rule", "ID=SEVERITY",    "report a rule as off, info, warning or error; may be repeated",
    "",     WordKind::Listed, rulesWithSeverities,
    true
};
constexpr Option exceptionsOption { "exceptions", "FILE",
                                    "allowed findings, instead of those in TREE.exceptions", "",
                                    WordKind::File };
constexpr Option strictOption { "strict", "", "exit with 8 from warnings, too" };
constexpr Option formatOption { "format", "FORMAT",         "text (the default), or json as --json",
                                "",       WordKind::Listed, formats };
constexpr Option catalogueOption {
    "catalogue", "FILE",         "a *.qm file that ought to have every text; may be repeated",
    "",          WordKind::File, nullptr,
    true
};
constexpr Option againstOption { "against", "TREE",
                                 "find what users of this older image would lose, too", "",
                                 WordKind::Directory };
constexpr Option stampOption { "stamp", "", "stamp the tree, if it has no errors" };
constexpr Option explainOption {
    "explain", "RULE", "tell about a rule, and check nothing", "", WordKind::Listed, rules
};

// ---------------------------------------------------------------------------------------------
// What was asked for.
// ---------------------------------------------------------------------------------------------

/// How findings are reported.
struct Report
{
    std::array<Severity, ruleCount> severities {};
    std::optional<RuleExceptions> exceptions;
    bool isStrict = false;
    bool isStamping = false;
    bool isJson = false;

    Severity severityOf(const TreeFinding& finding) const
    {
        if (finding.stopsStart)
            return Severity::Error;
        const Severity severity = severities.at(std::size_t(finding.rule));
        return finding.isCovered ? std::min(severity, Severity::Info) : severity;
    }
};

QString unknownRule(const QString& name)
{
    return QStringLiteral("unknown rule '%1'%2").arg(name, suggestion(name, ruleNames()));
}

// Returns what is wrong with "ID=SEVERITY".
QString setSeverity(const QString& text, Report* report)
{
    const QString name = text.section(QLatin1Char('='), 0, 0);
    const Rule* const rule = findRule(name);
    const std::optional<Severity> severity =
        severityNamed(text.mid(std::min(name.size() + 1, text.size())));
    if (rule == nullptr)
        return unknownRule(name);
    if (!severity) {
        return QStringLiteral("'--rule' needs a rule and off, info, warning or error, such as "
                              "%1=warning")
            .arg(name);
    }
    report->severities.at(std::size_t(rule->id)) = *severity;
    return QString();
}

/// What leads from an older image to the one that is checked.
struct Update
{
    QString oldTree; ///< null where none is named
    QVector<Migration> migrations;
};

// Returns what is wrong with them.
QString readMigrationsOf(const Place& place, const QString& defaultPath, Update* update)
{
    const QString directory = place.engine.migrationsPath.isEmpty() ? migrationsBeside(defaultPath)
                                                                    : place.engine.migrationsPath;
    return readMigrations(directory, &update->migrations);
}

QString readExceptions(const Arguments& arguments, const QString& defaultPath, Report* report)
{
    QString name = arguments.value(exceptionsOption);
    if (!arguments.isSet(exceptionsOption)) {
        name = QDir::cleanPath(QFileInfo(defaultPath).absoluteFilePath())
            + QLatin1String(".exceptions");
        if (!QFileInfo(name).isFile())
            return QString();
    }
    QString error;
    report->exceptions = RuleExceptions::read(name, &error);
    return error;
}

// Returns what is wrong with the options.
QString readOptions(const Arguments& arguments, const QString& defaultPath, Report* report)
{
    for (const Rule& rule : allRules())
        report->severities.at(std::size_t(rule.id)) = rule.severity;
    for (const QString& text : arguments.values(ruleOption)) {
        QString error = setSeverity(text, report);
        if (!error.isEmpty())
            return error;
    }
    const QString format = arguments.value(formatOption);
    if (arguments.isSet(formatOption) && format != QLatin1String("text")
        && format != QLatin1String("json"))
        return QStringLiteral("'--format' needs text or json, not '%1'").arg(format);
    report->isStrict = arguments.isSet(strictOption);
    report->isJson = report->isJson || format == QLatin1String("json");
    for (const QString& name : arguments.values(catalogueOption)) {
        if (!QTranslator().load(name))
            return QStringLiteral("'%1' is not a catalogue, as lrelease makes them").arg(name);
    }
    return readExceptions(arguments, defaultPath, report);
}

// ---------------------------------------------------------------------------------------------
// Where the trees are.
// ---------------------------------------------------------------------------------------------

// For a process that may not find them there.
Error findTrees(const Context& context, const Arguments& arguments, TreesToCheck* trees)
{
    const EngineOptions& engine = context.place.engine;
    if (!engine.productPostfix.isEmpty())
        trees->product = engine.productPostfix;
    if (context.inShell && !arguments.positional.isEmpty()) {
        trees->defaultPath = arguments.positional.first();
        return {};
    }
    trees->defaultPath = engine.defaultPath;
    trees->writePath = engine.writePath;
    if (context.settings == nullptr)
        return {};
    const auto status = finished(context.settings->status());
    if (status.error())
        return status.error();
    trees->defaultPath = status.value().defaultPath;
    trees->writePath = status.value().writePath;
    trees->writtenBy = status.value().product;
    // An empty name would stand for the current folder.
    if (!trees->defaultPath.isEmpty() && !trees->writePath.isEmpty())
        return {};
    return { ErrorCode::Internal,
             QStringLiteral("the service does not say where its directories are"), QString() };
}

Error validateReadable(const QString& path)
{
    const QFileInfo directory(path);
    if (directory.isDir() && directory.isReadable() && directory.isExecutable())
        return {};
    return { ErrorCode::Unavailable, QStringLiteral("directory '%1' cannot be read").arg(path),
             QString() };
}

// ---------------------------------------------------------------------------------------------
// Results.
// ---------------------------------------------------------------------------------------------

// In the current folder without "./", as one would type it.
QString shortened(QString file)
{
    if (file.startsWith(QLatin1String("./")))
        file.remove(0, 2);
    return file;
}

Style styleOf(Severity severity)
{
    return severity == Severity::Error  ? Style::Error
        : severity == Severity::Warning ? Style::Warning
                                        : Style::Plain;
}

void print(TreeFinding finding, const Report& report, Output& output)
{
    finding.file = shortened(finding.file);
    const QString severity = severityName(report.severityOf(finding));
    const QString rule = QLatin1String(ruleOf(finding.rule).name);
    if (!report.isJson) {
        output.line(QStringLiteral("%1: %2: %3: ").arg(placeOf(finding), severity, rule)
                        + finding.message,
                    styleOf(report.severityOf(finding)));
        return;
    }
    output.object(
        { { QStringLiteral("file"), finding.file },
          { QStringLiteral("line"), finding.position.line },
          { QStringLiteral("column"), finding.position.column },
          { QStringLiteral("rule"), rule },
          { QStringLiteral("severity"), severity },
          { QStringLiteral("message"), finding.message },
          { QStringLiteral("path"),
            finding.settingPath.isNull() ? QString() : topPath() + finding.settingPath } });
}

QString counted(int count, const char* one, const char* many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

struct Counts
{
    int errors = 0;
    int warnings = 0;
    int notes = 0;
    int allowed = 0;
};

QString summary(const TreesToCheck& trees, const Update& update, const Counts& counts)
{
    QString what = trees.writePath.isEmpty()
        ? QStringLiteral("'%1'").arg(trees.defaultPath)
        : QStringLiteral("'%1' and '%2'").arg(trees.defaultPath, trees.writePath);
    if (!update.oldTree.isNull())
        what += QStringLiteral(" against '%1'").arg(update.oldTree);
    QString text = QStringLiteral("checked %1: %2, %3, %4")
                       .arg(what, counted(counts.errors, "error", "errors"),
                            counted(counts.warnings, "warning", "warnings"),
                            counted(counts.notes, "note", "notes"));
    if (counts.allowed > 0)
        text += QStringLiteral(", %1 allowed by exceptions").arg(counts.allowed);
    return text;
}

// An exception for what was not looked at is not unused.
bool isChecked(RuleId rule, const TreesToCheck& trees, const Update& update)
{
    const char* const group = ruleOf(rule).group;
    return !trees.product && (qstrcmp(group, "written") != 0 || !trees.writePath.isEmpty())
        && (qstrcmp(group, "against") != 0 || !update.oldTree.isNull())
        && (rule != RuleId::TextUntranslated || !trees.catalogues.isEmpty());
}

int check(const TreesToCheck& trees, const Update& update, Report& report, Output& output)
{
    const Progress progress(QStringLiteral("checking"));
    QVector<TreeFinding> findings = checkTrees(trees);
    if (!update.oldTree.isNull())
        findings += compareTrees(update.oldTree, trees, update.migrations);
    const auto isOff = [&report](const TreeFinding& finding) {
        return report.severityOf(finding) == Severity::Off
            || (report.isStamping && finding.rule == RuleId::StampStale);
    };
    findings.erase(std::remove_if(findings.begin(), findings.end(), isOff), findings.end());
    Counts counts;
    if (report.exceptions) {
        counts.allowed = report.exceptions->apply(&findings);
        findings += report.exceptions->unused([&trees, &update, &report](RuleId rule) {
            return report.severities.at(std::size_t(rule)) != Severity::Off
                && isChecked(rule, trees, update);
        });
        findings.erase(std::remove_if(findings.begin(), findings.end(), isOff), findings.end());
    }
    for (const TreeFinding& finding : findings) {
        print(finding, report, output);
        const Severity severity = report.severityOf(finding);
        ++(severity == Severity::Error         ? counts.errors
               : severity == Severity::Warning ? counts.warnings
                                               : counts.notes);
    }
    if (!report.isJson)
        output.note(summary(trees, update, counts));
    const bool hasFailed = counts.errors > 0 || (report.isStrict && counts.warnings > 0);
    if (hasFailed || !report.isStamping)
        return hasFailed ? Findings : Done;
    const QString reason = writeStamp(trees.defaultPath);
    return reason.isEmpty() ? int(Done) : output.report({ ErrorCode::NotSaved, reason, QString() });
}

int explain(const QString& name, Output& output)
{
    const Rule* const rule = findRule(name);
    if (rule == nullptr)
        return output.reportUsage(unknownRule(name));
    const QString severity = severityName(rule->severity);
    if (output.isJson()) {
        output.object({ { QStringLiteral("rule"), name },
                        { QStringLiteral("group"), QLatin1String(rule->group) },
                        { QStringLiteral("severity"), severity },
                        { QStringLiteral("sentence"), QString::fromUtf8(rule->sentence) },
                        { QStringLiteral("why"), QString::fromUtf8(rule->why) },
                        { QStringLiteral("example"), QString::fromUtf8(rule->example) },
                        { QStringLiteral("remedy"), QString::fromUtf8(rule->remedy) } });
        return Done;
    }
    output.line(
        QStringLiteral("%1 (%2): %3").arg(name, severity, QString::fromUtf8(rule->sentence)));
    output.line(QStringLiteral("Why:     %1").arg(QString::fromUtf8(rule->why)));
    output.line(QStringLiteral("Example: %1").arg(QString::fromUtf8(rule->example)));
    output.line(QStringLiteral("Remedy:  %1").arg(QString::fromUtf8(rule->remedy)));
    return Done;
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    if (arguments.isSet(explainOption))
        return explain(arguments.value(explainOption), output);
    TreesToCheck trees;
    trees.catalogues = arguments.values(catalogueOption);
    const QString oldTree = arguments.value(againstOption);
    const QString problem = oldTree.isNull() ? QString() : checkDirectory(oldTree);
    if (!problem.isEmpty())
        return output.reportUsage(problem);
    Error error = findTrees(context, arguments, &trees);
    for (const QString& path : { trees.defaultPath, trees.writePath, oldTree }) {
        if (!error && !path.isNull())
            error = validateReadable(path);
    }
    if (error)
        return output.report(error);
    Report report;
    report.isJson = output.isJson();
    report.isStamping = arguments.isSet(stampOption);
    QString reason = readOptions(arguments, trees.defaultPath, &report);
    Update update;
    update.oldTree = oldTree;
    if (reason.isEmpty())
        reason = readMigrationsOf(context.place, trees.defaultPath, &update);
    return reason.isEmpty() ? check(trees, update, report, output) : output.reportUsage(reason);
}

} // namespace

namespace commands {

Command check()
{
    Command command {
        "check",
        "",
        { { "TREE", Argument::Count::Optional, Argument::Kind::Tree } },
        { ruleOption, exceptionsOption, strictOption, formatOption, catalogueOption, againstOption,
          stampOption, explainOption },
        "Prints what is wrong in a default tree, with --write-path in the changed values on it, and\n"
        "with --against what users of an older image would lose. A line is\n"
        "FILE:LINE:COLUMN: SEVERITY: RULE: what is wrong; 'check --explain RULE' tells more, and\n"
        "docs/rules.md lists the rules. Every product variant is looked at, or that of --product.\n"
        "Without TREE and --default-path it checks both trees of the service. Findings are allowed\n"
        "by lines 'RULE GLOB REASON' in TREE.exceptions. Exits with 8 from errors.\n"
        "--stamp, as the last step of an image's build, spares devices that have this image a look at\n"
        "all its files.",
        "check settings-default --strict",
        Command::Where::Anywhere,
        Command::Needs::Trees,
        Command::Runs::ToItsEnd,
        run
    };
    command.standalone = &explainOption;
    return command;
}

} // namespace commands

} // namespace tulo
