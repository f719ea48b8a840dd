// Rules or a record of migrations, as somebody may have written them: a list is a file of rules, an
// object a record. Whatever rules say, an image that does not know them gets back what it had, and
// applying them again changes nothing.

#include "fuzzinput.h"

#include "trees/migration.h"

#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

using namespace tulo;

namespace {

TuloRoles rolesOf(const QByteArray& json)
{
    TuloError error;
    return TuloRoles(TuloHash(TuloJson::parse(json, error, nullptr).toHash()));
}

TuloRoles defaultsOf(const QByteArray& json)
{
    TuloRoles roles = rolesOf(json);
    roles.setDefaultValue(roles.value());
    return roles;
}

/// A device with the newer image, whose values the older one left.
MigrationInput device()
{
    MigrationInput input;
    const auto add = [&input](const char* path, const QByteArray& defaults,
                              const QByteArray& written) {
        const QString settingPath = QString::fromLatin1(path);
        input.image.settings.insert(settingPath, defaultsOf(defaults));
        if (!written.isEmpty())
            input.written.insert(settingPath, written);
    };
    add("/a", R"({"id":"A","value":{"int":5},"edit":{"min":0,"max":80}})",
        R"({"id":"A","timestamp":1,"value":{"int":95}})");
    add("/b", R"({"value":{"int":5}})", R"({"timestamp":2,"value":{"int":7}})");
    add("/c", R"({"value":{"string":"x"},"edit":{"values":["x","y"]}})",
        R"({"timestamp":3,"value":{"string":"y"}})");
    add("/d/e", R"({"id":"E","value":{"double":0.5}})",
        R"({"id":"E","timestamp":4,"value":{"double":1.5}})");
    add("/d/f", R"({"id":"F","value":{"bool":true}})", QByteArray());
    input.written.insert(QStringLiteral("/p/one"), R"({"timestamp":5,"value":{"int":1}})");
    input.written.insert(QStringLiteral("/old"), R"({"timestamp":6,"value":{"int":2}})");
    input.written.insert(QStringLiteral("/damaged"), "{");
    input.image.directories = { QStringLiteral("/d"), QStringLiteral("/p"), QStringLiteral("/q") };
    input.image.templates.insert(QStringLiteral("/p"), rolesOf(R"({"value":{"int":0}})"));
    input.image.templates.insert(QStringLiteral("/q"), rolesOf(R"({"value":{"int":0}})"));
    return input;
}

// Every value has its place there.
void startOlderImage(MigrationInput* input)
{
    input->migrations.clear();
    input->image.settings.insert(QStringLiteral("/old"), defaultsOf(R"({"value":{"int":5}})"));
    input->image.settings.insert(
        QStringLiteral("/a"),
        defaultsOf(R"({"id":"A","value":{"int":5},"edit":{"min":0,"max":100}})"));
}

void carryOut(const MigrationPlan& plan, MigrationInput* input)
{
    for (const FileChange& change : plan.changes) {
        if (change.content)
            input->written.insert(change.settingPath, *change.content);
        else
            input->written.remove(change.settingPath);
    }
    const QString error = MigrationRecord::fromJson(plan.record.toJson(), &input->record);
    TULO_ASSERT_TEXT(error.isEmpty(), "a record that cannot be read back");
}

void migrateThereAndBack(const Migration& migration)
{
    MigrationInput input = device();
    const auto before = input.written;
    input.migrations = { migration };
    carryOut(planMigration(input), &input);
    const MigrationPlan again = planMigration(input);
    TULO_ASSERT(again.changes.isEmpty());
    TULO_ASSERT(again.record.toJson() == input.record.toJson());

    startOlderImage(&input);
    carryOut(planMigration(input), &input);
    TULO_ASSERT(input.written == before);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    if (text.startsWith('{')) {
        MigrationInput input = device();
        if (MigrationRecord::fromJson(text, &input.record).isEmpty()) {
            carryOut(planMigration(input), &input);
            (void)planUndo(input);
        }
        return 0;
    }
    Migration migration;
    const QString name = QStringLiteral("0001-fuzz.json");
    const QString fault = parseMigration(name, text, &migration);
    TULO_ASSERT(fault.isEmpty() || fault.startsWith(name + QLatin1Char(':')));
    if (fault.isEmpty())
        migrateThereAndBack(migration);
    return 0;
}
