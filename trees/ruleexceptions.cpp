#include "trees/ruleexceptions.h"

#include "trees/misspelling.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>

#include <fnmatch.h>

namespace tulo {

std::optional<RuleExceptions> RuleExceptions::read(const QString& fileName, QString* error)
{
    constexpr qint64 maximumBytes = 1024LL * 1024;
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read '%1': %2").arg(fileName, file.errorString());
        return std::nullopt;
    }
    const QByteArray text = file.read(maximumBytes + 1);
    if (file.error() != QFileDevice::NoError || text.size() > maximumBytes) {
        *error = text.size() > maximumBytes
            ? QStringLiteral("'%1' is larger than 1 MiB").arg(fileName)
            : QStringLiteral("cannot read '%1': %2").arg(fileName, file.errorString());
        return std::nullopt;
    }
    RuleExceptions exceptions;
    exceptions.m_fileName = fileName;
    const QStringList lines = QString::fromUtf8(text).split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        const QString reason = exceptions.parseLine(lines.at(i).trimmed(), i + 1);
        if (!reason.isEmpty()) {
            *error = QStringLiteral("'%1', line %2: %3").arg(fileName).arg(i + 1).arg(reason);
            return std::nullopt;
        }
    }
    return exceptions;
}

// Returns what is wrong with the line.
QString RuleExceptions::parseLine(const QString& text, int line)
{
    if (text.isEmpty() || text.startsWith(QLatin1Char('#')))
        return QString();
    static const QRegularExpression parts(QStringLiteral("^(\\S+)(?:\\s+(\\S+)(?:\\s+(.+))?)?$"));
    const QRegularExpressionMatch match = parts.match(text);
    const QString name = match.captured(1);
    const Rule* const rule = findRule(name);
    if (rule == nullptr)
        return QStringLiteral("unknown rule '%1'%2").arg(name, suggestion(name, ruleNames()));
    if (match.captured(3).isEmpty())
        return QStringLiteral("an exception has a rule, a file or glob, and a reason");
    m_exceptions.append({ rule->id, QFile::encodeName(match.captured(2)), line, false });
    return QString();
}

bool RuleExceptions::allow(const TreeFinding& finding)
{
    if (finding.stopsStart)
        return false;
    bool isAllowed = false;
    const QByteArray name = QFile::encodeName(finding.name);
    // All that match are used, so that none of them is reported.
    for (Exception& exception : m_exceptions) {
        if (exception.rule == finding.rule
            && ::fnmatch(exception.glob.constData(), name.constData(), 0) == 0) {
            exception.isUsed = true;
            isAllowed = true;
        }
    }
    return isAllowed;
}

int RuleExceptions::apply(QVector<TreeFinding>* findings)
{
    const int before = findings->size();
    const auto left = std::remove_if(findings->begin(), findings->end(),
                                     [this](const TreeFinding& finding) { return allow(finding); });
    findings->erase(left, findings->end());
    return before - findings->size();
}

QVector<TreeFinding> RuleExceptions::unused(const std::function<bool(RuleId)>& isChecked) const
{
    QVector<TreeFinding> findings;
    for (const Exception& exception : m_exceptions) {
        if (exception.isUsed || !isChecked(exception.rule))
            continue;
        TreeFinding finding;
        finding.rule = RuleId::ExceptionUnused;
        finding.file = m_fileName;
        finding.position = { exception.line, 1 };
        finding.message =
            QStringLiteral("no finding of '%1' matches '%2'")
                .arg(QLatin1String(ruleOf(exception.rule).name), QFile::decodeName(exception.glob));
        findings.append(finding);
    }
    return findings;
}

} // namespace tulo
