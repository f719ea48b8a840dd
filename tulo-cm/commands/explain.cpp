#include "tulo-cm/command.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/shownroles.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

QVariantMap originObject(const RoleOrigin& origin)
{
    QVariantMap object { { QStringLiteral("role"), origin.role },
                         { QStringLiteral("layer"), nameOf(origin.layer) },
                         { QStringLiteral("state"), nameOf(origin.state) } };
    if (origin.value.isValid()) {
        object.insert(QStringLiteral("value"),
                      isValueRole(origin.role) ? valueObject(origin.value) : origin.value);
    }
    if (!origin.file.isEmpty())
        object.insert(QStringLiteral("file"), origin.file);
    if (origin.line > 0) {
        object.insert(QStringLiteral("line"), origin.line);
        object.insert(QStringLiteral("column"), origin.column);
    }
    if (!origin.reason.isEmpty())
        object.insert(QStringLiteral("reason"), origin.reason);
    return object;
}

QString placeOf(const RoleOrigin& origin)
{
    if (origin.file.isEmpty())
        return QStringLiteral("-");
    return origin.line > 0 ? QStringLiteral("%1:%2").arg(origin.file).arg(origin.line)
                           : origin.file;
}

// What a user has changed.
bool isChange(const RoleOrigin& origin)
{
    return origin.layer == RoleOrigin::Layer::Written || origin.layer == RoleOrigin::Layer::Pending;
}

void printTables(Output& output, const QVector<RoleOrigin>& origins)
{
    QVariantMap roles;
    for (const RoleOrigin& origin : origins) {
        if (origin.state == RoleOrigin::State::Effective)
            roles.insert(origin.role, origin.value);
    }
    QVector<TableRow> effective;
    QVector<TableRow> others;
    for (const RoleOrigin& origin : origins) {
        const QString role = origin.role.isEmpty() ? QStringLiteral("-") : origin.role;
        // The value last, as it can be long.
        QStringList cells { role, nameOf(origin.layer), placeOf(origin) };
        // Constraints are understood with the other roles.
        QVariantMap rolesHere = roles;
        rolesHere.insert(origin.role, origin.value);
        const QString value = shownRole(output, origin.role, rolesHere);
        if (origin.state == RoleOrigin::State::Effective) {
            effective.append({ cells << value, isChange(origin) ? Style::Changed : Style::Plain });
        } else {
            cells << nameOf(origin.state) + QStringLiteral(": ") + origin.reason << value;
            others.append({ cells });
        }
    }
    const QStringList heading { QStringLiteral("role"), QStringLiteral("layer"),
                                QStringLiteral("place") };
    const QStringList value { QStringLiteral("value") };
    output.table(heading + value, effective);
    if (others.isEmpty())
        return;
    output.line(QString());
    output.table(heading + QStringList(QStringLiteral("without effect")) + value, others);
}

int run(Context& context, const Arguments& arguments)
{
    const Paging paging(context.output);
    const QString& path = arguments.positional.first();
    const auto reply = finished(context.settings->explain(path));
    if (reply.error())
        return context.output.report(reply.error());
    if (context.output.isJson()) {
        QVariantList origins;
        for (const RoleOrigin& origin : reply.value())
            origins.append(originObject(origin));
        context.output.object(
            { { QStringLiteral("path"), path }, { QStringLiteral("origins"), origins } });
    } else {
        printTables(context.output, reply.value());
    }
    return Done;
}

} // namespace

namespace commands {

Command explain()
{
    return { "explain",
             "",
             { { "PATH", Argument::Count::One, Argument::Kind::Path } },
             {},
             "Prints where each role of a setting comes from: its value, its layer, and the file "
             "and line.\nLayers are the default file, that of the product variant, the template of "
             "the directory\n(\".meta\"), the written file, a pending change that is not written "
             "yet, and builtIn for what is\nset on reading; cached is what was read before its "
             "file was changed. Then what has no effect:\nroles that another layer hides, and "
             "what is ignored in a file. Hidden values of encrypted\nsettings are left out.",
             "explain /settings/audio/volume",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
