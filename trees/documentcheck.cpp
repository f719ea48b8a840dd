#include "trees/documentcheck.h"

#include "trees/locatedjson.h"
#include "trees/misspelling.h"
#include "trees/printable.h"
#include "trees/settingvalue.h"

#include "api/core/model/cmedit.h"
#include "api/core/tuloroles.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>

namespace tulo {

namespace {

using Findings = QVector<DocumentFinding>;

bool isInteger(const QVariant& content)
{
    return content.userType() == QMetaType::LongLong || content.userType() == QMetaType::ULongLong;
}

bool isNumber(const QVariant& content)
{
    return isNumberKind(TuloValue::ofContent(content).kind());
}

QString rolePointer(const QString& role)
{
    return pointerTo(QString(), role);
}

// ---------------------------------------------------------------------------------------------
// Constraints: of a setting, or of a list's elements.
// ---------------------------------------------------------------------------------------------

const QStringList& constraintNames()
{
    static const QStringList names {
        TuloEdit::Kind(),      TuloEdit::Min(),     TuloEdit::Max(),
        TuloEdit::Step(),      TuloEdit::Values(),  TuloEdit::MinLength(),
        TuloEdit::MaxLength(), TuloEdit::Pattern(), TuloEdit::Elements(),
    };
    return names;
}

QStringList applicableTo(const QString& kind)
{
    if (isNumberKind(kind)) {
        return { TuloEdit::Kind(), TuloEdit::Min(), TuloEdit::Max(), TuloEdit::Step(),
                 TuloEdit::Values() };
    }
    if (kind == TuloValue::String()) {
        return { TuloEdit::Kind(), TuloEdit::Values(), TuloEdit::MinLength(), TuloEdit::MaxLength(),
                 TuloEdit::Pattern() };
    }
    if (kind == TuloValue::List()) {
        return { TuloEdit::Kind(), TuloEdit::Values(), TuloEdit::MinLength(), TuloEdit::MaxLength(),
                 TuloEdit::Elements() };
    }
    return { TuloEdit::Kind(), TuloEdit::Values() };
}

class ConstraintCheck
{
public:
    /// `kind` is the setting's, empty when nothing tells it.
    ConstraintCheck(const QVariant& constraints, QString kind, QString pointer, Findings* findings)
        : m_written(constraints)
        , m_constraints(constraints.toHash())
        , m_edit(TuloEdit::fromVariant(constraints))
        , m_kind(std::move(kind))
        , m_pointer(std::move(pointer))
        , m_findings(findings)
    {
    }

    /// Returns whether the constraints can be understood.
    bool checkForm()
    {
        if (m_written.userType() != QMetaType::QVariantHash) {
            m_findings->append({ RuleId::ConstraintMalformed, m_pointer,
                                 QStringLiteral("%1: %2 is not an object")
                                     .arg(m_pointer.mid(1), shownContent(m_written)) });
            return false;
        }
        const int before = m_findings->size();
        checkKind();
        checkNumbers();
        checkValues();
        checkLengths();
        checkPattern();
        const QVariant elements = m_constraints.value(TuloEdit::Elements());
        if (elements.isValid())
            ofElements(elements).checkForm();
        return m_findings->size() == before;
    }

    /// Constraints that do not exist, or mean nothing to the kind.
    void checkNames()
    {
        const QStringList applicable = applicableTo(m_kind);
        for (auto entry = m_constraints.cbegin(); entry != m_constraints.cend(); ++entry) {
            if (!constraintNames().contains(entry.key())) {
                add(RuleId::ConstraintUnknown, entry.key(),
                    QStringLiteral("unknown constraint '%1'%2")
                        .arg(entry.key(), suggestion(entry.key(), constraintNames())));
            } else if (!m_kind.isEmpty() && !applicable.contains(entry.key())) {
                add(RuleId::ConstraintNotApplicable, entry.key(),
                    QStringLiteral("'%1' does not apply to a value of kind '%2'")
                        .arg(entry.key(), m_kind));
            }
        }
        const QVariant elements = m_constraints.value(TuloEdit::Elements());
        if (elements.isValid())
            ofElements(elements).checkNames();
    }

    /// What can be stored under constraints that can be understood.
    void checkSense()
    {
        if (!m_kind.isEmpty())
            checkReach();
        const QVariant elements = m_constraints.value(TuloEdit::Elements());
        if (elements.isValid())
            ofElements(elements).checkSense();
    }

private:
    ConstraintCheck ofElements(const QVariant& elements) const
    {
        return { elements, CMEdit::kind(TuloValue(), TuloEdit::fromVariant(elements)),
                 at(TuloEdit::Elements()), m_findings };
    }

    QString at(const QString& key) const { return pointerTo(m_pointer, key); }

    void add(RuleId rule, const QString& key, const QString& message)
    {
        m_findings->append({ rule, at(key), message });
    }

    void malformed(const QString& key, const QString& reason)
    {
        add(RuleId::ConstraintMalformed, key,
            QStringLiteral("'%1': %2 is not %3")
                .arg(key, shownContent(m_constraints.value(key)), reason));
    }

    void checkKind()
    {
        const QVariant kind = m_constraints.value(TuloEdit::Kind());
        if (!kind.isValid() || TuloValue::kinds().contains(m_edit.kind()))
            return;
        add(RuleId::ConstraintMalformed, TuloEdit::Kind(),
            QStringLiteral("'kind': %1 is not bool, int, double, string or list")
                .arg(shownContent(kind)));
    }

    void checkNumbers()
    {
        for (const QString& key : { TuloEdit::Min(), TuloEdit::Max(), TuloEdit::Step() }) {
            const QVariant number = m_constraints.value(key);
            if (!number.isValid())
                continue;
            if (!isNumber(number))
                malformed(key, QStringLiteral("a number"));
            else if (key == TuloEdit::Step() && number.toDouble() <= 0.0)
                malformed(key, QStringLiteral("above 0"));
            else if (key == TuloEdit::Step() && m_kind == TuloValue::Int()
                     && TuloValue::ofContent(number).convertedTo(m_kind).isEmpty())
                malformed(key, QStringLiteral("a whole number, as the kind 'int' needs"));
        }
    }

    void checkValues()
    {
        const QVariant values = m_constraints.value(TuloEdit::Values());
        if (!values.isValid())
            return;
        if (values.userType() != QMetaType::QVariantList) {
            malformed(TuloEdit::Values(), QStringLiteral("a list"));
            return;
        }
        QStringList kinds;
        for (const QVariant& value : values.toList()) {
            const QString kind = TuloValue::ofContent(value).kind();
            kinds.append(isNumberKind(kind) ? TuloValue::Double() : kind);
        }
        kinds.removeDuplicates();
        if (kinds.size() > 1 || kinds.contains(QString())) {
            malformed(TuloEdit::Values(), QStringLiteral("a list of contents of one kind"));
        }
    }

    void checkLengths()
    {
        for (const QString& key : { TuloEdit::MinLength(), TuloEdit::MaxLength() }) {
            const QVariant length = m_constraints.value(key);
            const bool isValid =
                key == TuloEdit::MinLength() ? m_edit.minLength() >= 0 : m_edit.maxLength() >= 0;
            if (length.isValid() && !isValid)
                malformed(key, QStringLiteral("a length, which is a whole number from 0"));
        }
    }

    void checkPattern()
    {
        const QVariant pattern = m_constraints.value(TuloEdit::Pattern());
        if (!pattern.isValid())
            return;
        const QRegularExpression expression(m_edit.pattern());
        if (pattern.userType() != QMetaType::QString) {
            malformed(TuloEdit::Pattern(), QStringLiteral("a text"));
        } else if (!expression.isValid()) {
            malformed(TuloEdit::Pattern(),
                      QStringLiteral("a regular expression: %1 at character %2")
                          .arg(expression.errorString())
                          .arg(expression.patternErrorOffset() + 1));
        }
    }

    // -----------------------------------------------------------------------------------------
    // What can be stored at all.
    // -----------------------------------------------------------------------------------------

    /// What becomes of a content when all constraints but the listed values are asked.
    CMEdit::Judgement validated(const QVariant& content) const
    {
        TuloEdit unlisted = m_edit;
        unlisted.__remove(TuloEdit::Values());
        unlisted.__setHashAttribute(TuloEdit::Kind(), m_kind);
        const TuloValue value = TuloValue::ofContent(content);
        return CMEdit::judge(TuloValue(), value, unlisted);
    }

    void checkReach()
    {
        if (m_edit.maxLength() >= 0 && m_edit.minLength() > m_edit.maxLength()
            && (m_kind == TuloValue::String() || m_kind == TuloValue::List())) {
            add(RuleId::ConstraintUnsatisfiable, TuloEdit::MinLength(),
                QStringLiteral("'minLength' (%1) is above 'maxLength' (%2)")
                    .arg(m_edit.minLength())
                    .arg(m_edit.maxLength()));
            return;
        }
        if (isNumberKind(m_kind) && validated(0LL).value.isEmpty()) {
            const bool hasMin = m_edit.min().isValid();
            add(RuleId::ConstraintUnsatisfiable, hasMin ? TuloEdit::Min() : TuloEdit::Max(),
                QStringLiteral("no value of kind '%1' fits min, max and step").arg(m_kind));
            return;
        }
        checkHighest();
        checkListed();
    }

    void checkHighest()
    {
        const QVariant max = m_edit.max();
        if (!isNumberKind(m_kind) || !max.isValid() || !m_edit.step().isValid())
            return;
        const CMEdit::Judgement judgement = validated(max);
        if (!judgement.reason.isEmpty()) {
            add(RuleId::ConstraintUnreachable, TuloEdit::Max(),
                QStringLiteral("'max' (%1) is not a number of steps from %2; the highest value is "
                               "%3")
                    .arg(shownContent(max),
                         m_edit.min().isValid() ? QStringLiteral("'min'") : QStringLiteral("0"),
                         shownContent(judgement.value.content())));
        }
    }

    void checkListed()
    {
        const QVariantList values = m_edit.values();
        Findings unreachable;
        for (int i = 0; i < values.size(); ++i) {
            const CMEdit::Judgement judgement = validated(values.at(i));
            if (judgement.reason.isEmpty())
                continue;
            unreachable.append(
                { RuleId::ConstraintUnreachable, pointerTo(at(TuloEdit::Values()), i),
                  QStringLiteral("%1 cannot be stored: %2")
                      .arg(shownContent(values.at(i)), withLimits(judgement.reason, m_edit)) });
        }
        if (!values.isEmpty() && unreachable.size() == values.size()) {
            add(RuleId::ConstraintUnsatisfiable, TuloEdit::Values(),
                QStringLiteral("none of 'values' fits the other constraints: ")
                    + unreachable.first().message);
        } else {
            *m_findings += unreachable;
        }
    }

    const QVariant m_written;
    const QVariantHash m_constraints;
    const TuloEdit m_edit;
    const QString m_kind;
    const QString m_pointer;
    Findings* const m_findings;
};

// ---------------------------------------------------------------------------------------------
// The roles of one file.
// ---------------------------------------------------------------------------------------------

class RolesCheck
{
public:
    RolesCheck(const QVariantHash& roles, DocumentUse use)
        : m_hash(roles)
        , m_roles(TuloHash(roles))
        , m_use(use)
        , m_kind(kindOfSetting(m_roles))
    {
    }

    void checkValues()
    {
        m_isUnderstood = !m_hash.contains(TuloRoles::Edit()) || constraints().checkForm();
        for (const QString& role : { TuloRoles::Value(), TuloRoles::DefaultValue() }) {
            if (m_hash.contains(role))
                checkValue(role);
        }
    }

    void checkRest()
    {
        checkRoles();
        for (const QString& role : { TuloRoles::Value(), TuloRoles::DefaultValue() })
            checkFraction(role);
        if (m_hash.contains(TuloRoles::Edit()))
            constraints().checkNames();
        if (m_isUnderstood && m_hash.contains(TuloRoles::Edit()))
            constraints().checkSense();
        checkSecrets();
        if (m_use == DocumentUse::Template && m_hash.contains(TuloRoles::Value())
            && !m_hash.contains(TuloRoles::DefaultValue())) {
            add(RuleId::MetaValue, TuloRoles::Value(),
                QStringLiteral(
                    "children get this value, but no default value; add 'defaultValue'"));
        }
    }

    Findings takeFindings() { return std::move(m_findings); }

private:
    void add(RuleId rule, const QString& role, const QString& message)
    {
        m_findings.append({ rule, rolePointer(role), message });
    }

    ConstraintCheck constraints()
    {
        return { m_hash.value(TuloRoles::Edit()), m_kind, rolePointer(TuloRoles::Edit()),
                 &m_findings };
    }

    // -----------------------------------------------------------------------------------------
    // Values.
    // -----------------------------------------------------------------------------------------

    static QString kindSuggestion(const QVariant& written)
    {
        const QStringList keys = written.toHash().keys();
        if (keys.size() != 1)
            return QString();
        // "integer" and "boolean" are longer, "str" is shorter.
        for (const QString& kind : TuloValue::kinds()) {
            if (keys.first().startsWith(kind, Qt::CaseInsensitive) && keys.first() != kind)
                return QStringLiteral("; did you mean '%1'?").arg(kind);
        }
        return TuloValue::kinds().contains(keys.first())
            ? QString()
            : suggestion(keys.first(), TuloValue::kinds());
    }

    void checkValue(const QString& role)
    {
        const QVariant written = m_hash.value(role);
        const TuloValue value { TuloHash(written.toHash()) };
        if (written.userType() == QMetaType::QVariantHash && value.isEmpty())
            return;
        if (!hasKnownKind(value)) {
            add(RuleId::NoKind, role,
                QStringLiteral("%1: %2 is not a value of a known kind, such as {\"int\":5}%3")
                    .arg(role, shownContent(written), kindSuggestion(written)));
            return;
        }
        if (!m_isUnderstood)
            return;
        const QString reason = CMEdit::judge(value, value, m_roles.edit()).reason;
        if (!reason.isEmpty()) {
            add(RuleId::DefaultOutsideConstraints, role,
                QStringLiteral("%1: %2: %3")
                    .arg(role, shownContent(value.content()), withLimits(reason, m_roles.edit())));
        }
    }

    void checkFraction(const QString& role)
    {
        const TuloValue value { TuloHash(m_hash.value(role).toHash()) };
        if (value.kind() == TuloValue::Double() && isInteger(value.content())) {
            add(RuleId::DoubleWithoutFraction, role,
                QStringLiteral("%1: a double has a fraction: %2.0")
                    .arg(role, shownContent(value.content())));
        }
    }

    // -----------------------------------------------------------------------------------------
    // Roles.
    // -----------------------------------------------------------------------------------------

    void checkRoles()
    {
        for (auto role = m_hash.cbegin(); role != m_hash.cend(); ++role) {
            if (!TuloRoles::keys().contains(role.key()))
                checkUnknown(role.key());
            else if (!isReserved(role.key()))
                checkType(role.key(), *role);
        }
    }

    bool isReserved(const QString& role)
    {
        static const QStringList reserved { TuloRoles::Path(), TuloRoles::Timestamp(),
                                            TuloRoles::Activate(), TuloRoles::SetRoles(),
                                            TuloRoles::ValueOperation() };
        if (reserved.contains(role)) {
            add(RuleId::ReservedRole, role,
                QStringLiteral("'%1' is set at run time and has no place in a default file")
                    .arg(role));
            return true;
        }
        if (role == TuloRoles::DefaultValue() && m_use == DocumentUse::Setting) {
            add(RuleId::ReservedRole, role,
                QStringLiteral("a setting's default is its 'value'; 'defaultValue' belongs into a "
                               ".meta"));
            return true;
        }
        return false;
    }

    void checkUnknown(const QString& role)
    {
        // So far only those that cannot be meant for anything else.
        const bool isConstraint = constraintNames().contains(role);
        const QString near = suggestion(role, TuloRoles::keys());
        if (isConstraint) {
            add(RuleId::UnknownRole, role,
                QStringLiteral("unknown role '%1'; constraints are entries of 'edit'").arg(role));
        } else if (TuloValue::kinds().contains(role)) {
            add(RuleId::UnknownRole, role,
                QStringLiteral("unknown role '%1'; did you mean \"value\": {\"%1\": ...}?")
                    .arg(role));
        } else if (!near.isEmpty()) {
            add(RuleId::UnknownRole, role, QStringLiteral("unknown role '%1'%2").arg(role, near));
        } else {
            add(RuleId::OwnRole, role,
                QStringLiteral("'%1' is a role of the product: it is answered as it is").arg(role));
        }
    }

    void checkType(const QString& role, const QVariant& content)
    {
        static const QStringList texts {
            TuloRoles::Title(),     TuloRoles::Description(), TuloRoles::LongDescription(),
            TuloRoles::ValueUnit(), TuloRoles::Id(),          TuloRoles::EncryptedValue(),
            TuloRoles::Permission()
        };
        static const QStringList truths { TuloRoles::Modifiable(), TuloRoles::Disabled(),
                                          TuloRoles::Encrypted() };
        QString wanted;
        if (texts.contains(role) && content.userType() != QMetaType::QString)
            wanted = QStringLiteral("a text");
        else if (truths.contains(role) && content.userType() != QMetaType::Bool)
            wanted = QStringLiteral("true or false");
        else if (role == TuloRoles::Type() && !isInteger(content))
            wanted = QStringLiteral("a whole number");
        if (!wanted.isEmpty()) {
            add(RuleId::RoleType, role,
                QStringLiteral("%1: %2 is not %3").arg(role, shownContent(content), wanted));
        }
    }

    void checkSecrets()
    {
        if (!m_roles.encrypted())
            return;
        for (const QString& role : { TuloRoles::Value(), TuloRoles::DefaultValue() }) {
            if (!TuloValue(TuloHash(m_hash.value(role).toHash())).isEmpty()) {
                add(RuleId::EncryptedWithPlainValue, role,
                    QStringLiteral(
                        "the default of an encrypted setting is plain text in the image"));
            }
        }
        if (m_isUnderstood && m_kind.isEmpty()) {
            add(RuleId::EncryptedWithoutKind, TuloRoles::Encrypted(),
                QStringLiteral("nothing tells the kind of an encrypted setting; add 'kind' to "
                               "'edit'"));
        }
    }

    const QVariantHash m_hash;
    const TuloRoles m_roles;
    const DocumentUse m_use;
    const QString m_kind;
    bool m_isUnderstood = true; ///< what the constraints say
    Findings m_findings;
};

} // namespace

bool hasKnownKind(const TuloValue& value)
{
    return !value.convertedTo(value.kind()).isEmpty()
        || (value.kind() == TuloValue::Int() && value.content().userType() == QMetaType::ULongLong);
}

QVector<DocumentFinding> checkValues(const QVariantHash& roles)
{
    RolesCheck check(roles, DocumentUse::Setting);
    check.checkValues();
    return check.takeFindings();
}

QVector<DocumentFinding> checkDocument(const QVariantHash& roles, DocumentUse use)
{
    RolesCheck check(roles, use);
    check.checkValues();
    check.checkRest();
    return check.takeFindings();
}

} // namespace tulo
