#pragma once

#include <QString>
#include <QStringList>

#include <array>
#include <optional>

// What is checked in trees: one table, from which findings, options, help and docs/rules.md are
// made. No state; thread-safe.

namespace tulo {

enum class Severity { Off, Info, Warning, Error };

QString severityName(Severity severity);
/// Nothing when no severity has that name.
std::optional<Severity> severityNamed(const QString& name);

/// In the order of the table.
enum class RuleId {
    // json
    Syntax,
    ByteOrderMark,
    NestedTooDeep,
    NoObject,
    DuplicateKey,
    // roles
    UnknownRole,
    OwnRole,
    RoleType,
    ReservedRole,
    MetaValue,
    // value
    NoKind,
    AnyKind,
    DoubleWithoutFraction,
    DefaultOutsideConstraints,
    ConstraintMalformed,
    ConstraintUnknown,
    ConstraintNotApplicable,
    ConstraintUnsatisfiable,
    ConstraintUnreachable,
    // tree
    NotListed,
    NameTooLong,
    PathTooDeep,
    Link,
    SpecialFile,
    TooLarge,
    Unreadable,
    FileDirectoryClash,
    TreeEmpty,
    StampStale,
    // variants
    VariantWithoutPlain,
    VariantOtherKind,
    VariantOtherId,
    VariantLacksRole,
    NameLikeVariant,
    PostfixEmpty,
    // ids
    IdMissing,
    IdTwice,
    // texts
    NoTitle,
    TextUntranslated,
    // secrets
    EncryptedWithPlainValue,
    EncryptedWithoutKind,
    // written
    Unusable,
    HardLink,
    StaleTemporary,
    WrittenUnparsable,
    WrittenOrphan,
    WrittenKindChanged,
    WrittenOutsideConstraints,
    // against
    Moved,
    Removed,
    Narrowed,
    KindChanged,
    MadeReadOnly,
    DefaultChanged,
    // exceptions
    ExceptionUnused
};

inline constexpr int ruleCount = int(RuleId::ExceptionUnused) + 1;

/// One thing that is checked. All texts are plain English without line breaks.
struct Rule
{
    RuleId id;
    const char* name; ///< what people and programs call it, such as "unknown-role"
    const char* group; ///< what it is about, such as "roles"
    Severity severity; ///< unless options say otherwise
    const char* sentence; ///< what is wrong
    const char* why; ///< what comes of it
    const char* example; ///< a file, or a part of one, that is wrong in this way
    const char* remedy;
};

const std::array<Rule, ruleCount>& allRules();
const Rule& ruleOf(RuleId id);
/// Null when no rule has that name.
const Rule* findRule(const QString& name);
QStringList ruleNames();

} // namespace tulo
