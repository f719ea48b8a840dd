#include "trees/rules.h"

#include <QVector>

#include <algorithm>

namespace tulo {

namespace {

constexpr std::array<Rule, ruleCount> table { {
    // -----------------------------------------------------------------------------------------
    // JSON.
    // -----------------------------------------------------------------------------------------
    { RuleId::Syntax, "syntax", "json", Severity::Error, "A default file is not JSON.",
      "The worker ends the process when it reads such a file, so the service does not start on the "
      "tree.",
      R"({"title": "Volume",})", "Correct the file at the place that is named." },
    { RuleId::ByteOrderMark, "byte-order-mark", "json", Severity::Error,
      "A default file begins with a byte order mark.",
      "JSON has none, and the worker ends the process when it reads one. Some editors write it "
      "without showing it.",
      R"(EF BB BF, then {"title": "Volume"})",
      "Save the file as UTF-8 without a byte order mark." },
    { RuleId::NestedTooDeep, "nested-too-deep", "json", Severity::Error,
      "A default file nests objects and lists more than 64 levels deep.",
      "It cannot be read, and the service does not start on the tree.",
      R"({"value": {"list": [[[[ ... ]]]]}})", "Flatten the value." },
    { RuleId::NoObject, "no-object", "json", Severity::Error,
      "A default file holds another JSON document than an object.",
      "A file is an object of roles; anything else has none. The service does not start on a file "
      "that holds null.",
      R"([{"title": "Volume"}])",
      "Write the roles as one object. {} is the file of a setting that the directory's .meta "
      "describes." },
    { RuleId::DuplicateKey, "duplicate-key", "json", Severity::Error, "A key is there twice.",
      "Only the last one counts, silently.",
      R"({"value": {"int": 5}, "title": "Volume", "value": {"int": 6}})", "Remove one of them." },

    // -----------------------------------------------------------------------------------------
    // Roles.
    // -----------------------------------------------------------------------------------------
    { RuleId::UnknownRole, "unknown-role", "roles", Severity::Error,
      "A role looks like a misspelling of a known one, or belongs elsewhere.",
      "Unknown roles are kept and answered, but nothing acts on them: the role that was meant is "
      "missing.",
      R"({"titel": "Volume"})",
      "Correct the name. For a role of the product that only looks alike, write an exception." },
    { RuleId::OwnRole, "own-role", "roles", Severity::Info,
      "A role is not one of those that the settings know.",
      "It is kept and answered as it is, and nothing acts on it: right for roles of the product, "
      "worth a look otherwise.",
      R"({"title": "Volume", "vendorHint": "slider"})",
      "Nothing, if clients of the product read it; otherwise remove it." },
    { RuleId::RoleType, "role-type", "roles", Severity::Error,
      "A role has another type than it needs.",
      R"(It reads as something else than was meant: the text "no" is true, a number is an odd title.)",
      R"({"title": 5, "modifiable": "no"})",
      "Texts are strings, modifiable, disabled and encrypted are true or false, type and timestamp "
      "are whole numbers." },
    { RuleId::ReservedRole, "reserved-role", "roles", Severity::Warning,
      "A default file has a role that is set at run time.",
      "What the file says is replaced or ignored.",
      R"({"path": "/audio/volume", "timestamp": 1700000000000})",
      "Remove the role. The default of a setting is its value; defaultValue belongs into a .meta." },
    { RuleId::MetaValue, "meta-value", "roles", Severity::Warning,
      "A .meta gives its children a value, but no default value.",
      "Children without a default file take their default from the role defaultValue alone: these "
      "have none to go back to.",
      R"({"title": "Preset", "value": {"string": "fm:87.5"}})",
      "Give the same content as defaultValue, too." },

    // -----------------------------------------------------------------------------------------
    // Values and constraints.
    // -----------------------------------------------------------------------------------------
    { RuleId::NoKind, "no-kind", "value", Severity::Error,
      "A value does not name its kind, or its content is not of that kind.",
      "The setting has no value that clients can use.", R"({"value": 5})",
      "Write the value as an object with one entry: bool, int, double, string or list." },
    { RuleId::AnyKind, "any-kind", "value", Severity::Warning,
      "A setting, or what clients make below a .meta, takes values of every kind.",
      "Nothing tells its kind, so that a text is accepted where a number was meant.",
      R"({"title": "Volume"})",
      R"(Give a value or edit.kind. In a .meta without such children: "modifiable": false.)" },
    { RuleId::DoubleWithoutFraction, "double-without-fraction", "value", Severity::Warning,
      "A double is written without a fraction.",
      "Readers of the file, and clients that look at the JSON type, take it for an integer.",
      R"({"value": {"double": 5}})", "Write 5.0." },
    { RuleId::DefaultOutsideConstraints, "default-outside-constraints", "value", Severity::Error,
      "A default value does not fit its own constraints.",
      "It is served as it is, but no client can set it again.",
      R"({"value": {"int": 120}, "edit": {"kind": "int", "max": 100}})",
      "Change the value or the constraint." },
    { RuleId::ConstraintMalformed, "constraint-malformed", "value", Severity::Error,
      "A constraint cannot be understood.", "It rejects every change of the setting.",
      R"({"edit": {"kind": "integer", "step": 0}})",
      "Correct it: docs/file-format.md lists the constraints." },
    { RuleId::ConstraintUnknown, "constraint-unknown", "value", Severity::Error,
      "A constraint has a name that is not one of the known ones.",
      "It is ignored, so that the setting takes what it was meant to reject.",
      R"({"edit": {"kind": "int", "maximum": 100}})", "Correct the name." },
    { RuleId::ConstraintNotApplicable, "constraint-not-applicable", "value", Severity::Warning,
      "A constraint does not apply to the setting's kind.", "It is ignored.",
      R"({"edit": {"kind": "string", "max": 32}})",
      "Remove it, or use the one that was meant, such as maxLength." },
    { RuleId::ConstraintUnsatisfiable, "constraint-unsatisfiable", "value", Severity::Error,
      "No value fits the constraints.", "Every change of the setting is rejected.",
      R"({"edit": {"kind": "int", "min": 10, "max": 5}})", "Correct the constraints." },
    { RuleId::ConstraintUnreachable, "constraint-unreachable", "value", Severity::Warning,
      "A listed value, or the highest one, can never be stored.",
      "Another constraint rejects or moves it, so that a control shows a choice or an end that "
      "cannot be reached.",
      R"({"edit": {"kind": "int", "min": 5, "max": 100, "step": 10}})",
      "Take the value out of the list, or make max a number of steps from min." },

    // -----------------------------------------------------------------------------------------
    // The tree.
    // -----------------------------------------------------------------------------------------
    { RuleId::NotListed, "not-listed", "tree", Severity::Error,
      "The default tree holds a name that no listing shows.",
      "Clients that list a directory never see it. Often it is a backup, or a file with an "
      "extension.",
      "audio/volume.json", R"(Remove it, or rename it: letters, digits, "_" and "-" are listed.)" },
    { RuleId::NameTooLong, "name-too-long", "tree", Severity::Error,
      "A name has more than 200 bytes, or a path more than 1,000.", "No request for it is served.",
      "A name of 201 letters", "Shorten it." },
    { RuleId::PathTooDeep, "path-too-deep", "tree", Severity::Error,
      "A setting or directory lies below the last level that a path can name.",
      "No request for it is served.", "a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p", "Flatten the tree." },
    { RuleId::Link, "link", "tree", Severity::Error,
      "A link leads nowhere or into itself, or stands in the writable tree.",
      "What it was meant to show is missing, and no change is written through a link.",
      "audio/volume -> ../none", "Replace it by what it stands for, or remove it." },
    { RuleId::SpecialFile, "special-file", "tree", Severity::Error,
      "A tree holds something that is neither a file nor a directory.",
      "Reading a pipe or a device could block, so the service does not start.",
      "mkfifo audio/volume", "Remove it." },
    { RuleId::TooLarge, "too-large", "tree", Severity::Error, "A file is larger than 1 MiB.",
      "The service does not start on the tree.", "A file of 2 MiB",
      "Keep such content elsewhere." },
    { RuleId::Unreadable, "unreadable", "tree", Severity::Error,
      "A file or directory of the default tree cannot be read.",
      "It counts as missing for the user who serves the settings.",
      "chmod 0600 audio/volume, by root", "Change its owner or mode." },
    { RuleId::FileDirectoryClash, "file-directory-clash", "tree", Severity::Error,
      "One name is a setting and a directory.",
      "The directory wins: the setting is not served, or a change of it cannot be written.",
      "The directory audio, and the file audio_sport for the product sport",
      "Rename one of them." },
    { RuleId::TreeEmpty, "tree-empty", "tree", Severity::Error,
      "The default tree has no file at all.",
      "Often it is another directory than the one that was meant, or one on which nothing is mounted.",
      "check /etc/tulo", "Name the directory that holds the settings' files." },
    { RuleId::StampStale, "stamp-stale", "tree", Severity::Error,
      "The tree or the rules beside it have changed since the tree was stamped.",
      "A device that has this stamp already does not look at what has changed: no migration is "
      "made.",
      "A default that was edited after check --stamp",
      "Stamp the tree as the last step of the image's build." },

    // -----------------------------------------------------------------------------------------
    // Product variants.
    // -----------------------------------------------------------------------------------------
    { RuleId::VariantWithoutPlain, "variant-without-plain", "variants", Severity::Error,
      "A product variant has no plain file beside it.",
      "Listings know the names of files only, so that no listing shows the plain path, and other "
      "products do not have the setting.",
      "audio/volume_sport without audio/volume",
      "Add the plain file; {} is enough for a listing." },
    { RuleId::VariantOtherKind, "variant-other-kind", "variants", Severity::Error,
      "A product variant is of another kind than the plain file.",
      "Programs written for one product do not work with the other, and a changed value carried "
      "over does not fit.",
      R"(volume: {"value": {"int": 5}}, volume_sport: {"value": {"string": "loud"}})",
      "Give both the same kind." },
    { RuleId::VariantOtherId, "variant-other-id", "variants", Severity::Error,
      "A product variant has another id than the plain file, or none.",
      "The id names the setting. With two, changed values are not found again when it moves.",
      R"(volume: {"id": "AUD-1"}, volume_sport: {"id": "AUD-2"})", "Give both the same id." },
    { RuleId::VariantLacksRole, "variant-lacks-role", "variants", Severity::Warning,
      "A product variant lacks a role that the plain file has.",
      "Nothing is merged: a variant takes the place of the plain file completely.",
      R"(volume_sport: {"value": {"int": 45}})", "Repeat the role in the variant." },
    { RuleId::NameLikeVariant, "name-like-variant", "variants", Severity::Warning,
      "A name can be read as a product variant of something else.",
      "A product with that postfix would see it in place of the other.",
      "seat and seat_heating, two settings", R"(Write "-" instead of "_" in names.)" },
    { RuleId::PostfixEmpty, "postfix-empty", "variants", Severity::Error,
      R"(A name ends in "_", like a variant with an empty postfix.)",
      "Where no product is configured, it takes the place of the plain file.",
      "audio/volume_ beside audio/volume", "Remove or rename it." },

    // -----------------------------------------------------------------------------------------
    // Ids.
    // -----------------------------------------------------------------------------------------
    { RuleId::IdMissing, "id-missing", "ids", Severity::Off, "A setting has no id.",
      "Changed values follow a setting to another path by its id. Without one, a migration rule is "
      "needed when it moves.",
      R"({"title": "Volume", "value": {"int": 35}})",
      "Give it an id that no other setting has, and keep it for ever." },
    { RuleId::IdTwice, "id-twice", "ids", Severity::Error, "Two settings have the same id.",
      "The id names one setting. When one of them moves, changed values of the other follow it.",
      R"(volume: {"id": "AUD-1"}, balance: {"id": "AUD-1"})", "Give one of them another id." },

    // -----------------------------------------------------------------------------------------
    // Texts.
    // -----------------------------------------------------------------------------------------
    { RuleId::NoTitle, "no-title", "texts", Severity::Warning,
      "A setting or directory has no title.", "People are shown the last component of its path.",
      R"({"value": {"int": 35}})", "Give it a title." },
    { RuleId::TextUntranslated, "text-untranslated", "texts", Severity::Warning,
      "A catalogue does not have a text.", "It is shown in the source language.",
      "A title that was changed after the catalogue was made", "Translate it, and run lrelease." },

    // -----------------------------------------------------------------------------------------
    // Secrets.
    // -----------------------------------------------------------------------------------------
    { RuleId::EncryptedWithPlainValue, "encrypted-with-plain-value", "secrets", Severity::Error,
      "An encrypted setting has its default in plain text.",
      "Everybody who has the image can read it.",
      R"({"encrypted": true, "value": {"string": "0000"}})",
      "Give an encryptedValue, or no default." },
    { RuleId::EncryptedWithoutKind, "encrypted-without-kind", "secrets", Severity::Error,
      "An encrypted setting does not say its kind.",
      "There is no plain default to take it from, so that values of every kind are accepted.",
      R"({"encrypted": true, "encryptedValue": "p3XkB7vZcN0yHs5oQeRt2g=="})", "Give edit.kind." },

    // -----------------------------------------------------------------------------------------
    // The writable tree.
    // -----------------------------------------------------------------------------------------
    { RuleId::Unusable, "unusable", "written", Severity::Error,
      "The user who serves the settings cannot read or write something in the writable tree.",
      "The service does not start, or changes are not written.",
      "A file that root has written there", "Change its owner or mode." },
    { RuleId::HardLink, "hard-link", "written", Severity::Error,
      "A temporary file in the writable tree has a second name.",
      "The next write would overwrite what stands under the other name.",
      "ln audio/other audio/.volume", "Remove the temporary file." },
    { RuleId::StaleTemporary, "stale-temporary", "written", Severity::Info,
      "The writable tree holds the temporary file of a write.",
      "It is left from a write that was interrupted. The next write of the setting reuses it.",
      "audio/.volume", "Nothing has to be done." },
    { RuleId::WrittenUnparsable, "written-unparsable", "written", Severity::Error,
      "A written file cannot be understood.",
      "It counts as missing, so that the default is served, and the next change replaces it.",
      R"({"value": {"int)", "Remove it, or set the value again." },
    { RuleId::WrittenOrphan, "written-orphan", "written", Severity::Warning,
      "A written file belongs to no setting of the image.",
      "An earlier image had the setting. The file still makes a setting at its old path, without "
      "title and constraints.",
      "vehicle/drive-mode, which this image calls driving/mode",
      "Give the setting its earlier id at its new path, or write a migration rule." },
    { RuleId::WrittenKindChanged, "written-kind-changed", "written", Severity::Error,
      "A written value is of another kind than the image's setting.",
      "It is served as it is, to programs that expect the new kind.",
      R"({"value": {"int": 95}} under "edit": {"kind": "string"})",
      "Write a migration rule, or set the value again." },
    { RuleId::WrittenOutsideConstraints, "written-outside-constraints", "written", Severity::Error,
      "A written value does not fit the image's constraints.",
      "It is served as it is, outside of what programs expect.",
      R"({"value": {"int": 95}} under "edit": {"max": 80})",
      "Write a migration rule, or set the value again." },

    // -----------------------------------------------------------------------------------------
    // An image against an earlier one.
    // -----------------------------------------------------------------------------------------
    { RuleId::Moved, "moved", "against", Severity::Info,
      "A setting has another path than in the old image.",
      "Its id is the same, so that changed values follow it; programs have to use the new path.",
      "vehicle/drive-mode is now driving/mode", "Nothing has to be done for the values." },
    { RuleId::Removed, "removed", "against", Severity::Error,
      "A setting of the old image is not in this one.",
      "Changed values stay behind under the old path.", "vehicle/drive-mode is gone, with its id",
      "Keep its id at the new path, or write a migration rule that moves or removes it." },
    { RuleId::Narrowed, "narrowed", "against", Severity::Error,
      "A setting takes fewer values than in the old image.",
      "A changed value that was valid is served outside of the new constraints.",
      R"("max": 100 became "max": 80)",
      "Write a migration rule that brings values into the limits." },
    { RuleId::KindChanged, "kind-changed", "against", Severity::Error,
      "A setting has another kind than in the old image.",
      "Changed values are served in the old kind, to programs that expect the new one.",
      R"({"int": 35} became {"string": "medium"})",
      "Write a migration rule, or use a new path and id." },
    { RuleId::MadeReadOnly, "made-read-only", "against", Severity::Error,
      "A setting that could be changed is read-only.",
      "A changed value stays for ever: nobody can set it back.", R"("modifiable": false was added)",
      "Write a migration rule that removes changed values." },
    { RuleId::DefaultChanged, "default-changed", "against", Severity::Info,
      "A default value differs from the old image's.",
      "Who never changed the setting gets the new one.", R"({"int": 35} became {"int": 25})",
      "Nothing has to be done." },

    // -----------------------------------------------------------------------------------------
    // The exceptions.
    // -----------------------------------------------------------------------------------------
    { RuleId::ExceptionUnused, "exception-unused", "exceptions", Severity::Warning,
      "An exception matches no finding.",
      "What it allowed has gone; it would hide the next mistake of that kind.",
      "no-title audio/volume Shown as an icon", "Remove the line." },
} };

constexpr bool isInOrder()
{
    for (int i = 0; i < ruleCount; ++i) {
        if (int(table[std::size_t(i)].id) != i) // NOLINT: the index is within
            return false;
    }
    return true;
}
static_assert(isInOrder(), "the table has the order of RuleId");

} // namespace

QString severityName(Severity severity)
{
    switch (severity) {
    case Severity::Off:
        return QStringLiteral("off");
    case Severity::Info:
        return QStringLiteral("info");
    case Severity::Warning:
        return QStringLiteral("warning");
    case Severity::Error:
        break;
    }
    return QStringLiteral("error");
}

std::optional<Severity> severityNamed(const QString& name)
{
    for (const Severity severity :
         { Severity::Off, Severity::Info, Severity::Warning, Severity::Error }) {
        if (name == severityName(severity))
            return severity;
    }
    return std::nullopt;
}

const std::array<Rule, ruleCount>& allRules()
{
    return table;
}

const Rule& ruleOf(RuleId id)
{
    return table.at(std::size_t(id));
}

const Rule* findRule(const QString& name)
{
    const auto* const found = std::find_if(table.cbegin(), table.cend(), [&name](const Rule& rule) {
        return name == QLatin1String(rule.name);
    });
    return found == table.cend() ? nullptr : found;
}

QStringList ruleNames()
{
    QStringList names;
    for (const Rule& rule : table)
        names.append(QLatin1String(rule.name));
    return names;
}

} // namespace tulo
