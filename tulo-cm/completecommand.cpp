#include "tulo-cm/completecommand.h"

#include "tulo-cm/commandline.h"
#include "tulo-cm/completion.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/settingssource.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/textinput.h"
#include "tulo-cm/typedwords.h"

#include "engine/engine.h"
#include "trees/plainroles.h"
#include "trees/producttree.h"
#include "trees/treedocuments.h"
#include "trees/treereader.h"

#include <tulo/remotesettings.h>

#include <QByteArray>
#include <QDeadlineTimer>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

#include <sys/time.h>
#include <unistd.h>

namespace tulo {
namespace {

// ---------------------------------------------------------------------------------------------
// The end. Everything is bounded by it: a file system or a bus that does not answer, too.
// ---------------------------------------------------------------------------------------------

// Of the 150 ms what is left when main() begins, unless a slow device allows more.
int limitMs()
{
    const int given = qEnvironmentVariableIntValue("TULO_COMPLETE_MS");
    return given > 0 ? given : 130;
}

void endInTime()
{
    std::signal(SIGALRM, [](int) { ::_exit(0); });
    const long milliseconds = limitMs();
    const itimerval limit { { 0, 0 }, { milliseconds / 1000, milliseconds % 1000 * 1000 } };
    ::setitimer(ITIMER_REAL, &limit, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Where the settings are.
// ---------------------------------------------------------------------------------------------

/// Reads two trees, without a worker and without a lock.
class TreeSource : public CompletionSource
{
public:
    TreeSource(const QString& defaultPath, const QString& writePath, const QString& product)
        : m_defaultPath(defaultPath)
        , m_tree(defaultPath, writePath, product)
    {
    }

    QVector<KnownRow> rows(const QString& path, const QString& prefix) override
    {
        const QDeadlineTimer forTitles(limitMs() / 2);
        QVector<KnownRow> rows;
        const QStringList names = m_tree.children(inTree(path));
        for (const QString& name : names) {
            if (name.startsWith(prefix))
                rows.append({ name, QString(), m_tree.isDirectory(inTree(pathBelow(path, name))) });
        }
        // Each costs the reading of several files.
        for (KnownRow& row : rows) {
            if (forTitles.hasExpired())
                break;
            row.title = roles(pathBelow(path, row.name), {}).value(roles::title()).toString();
        }
        return rows;
    }

    QVariantMap roles(const QString& path, const QStringList&) override
    {
        return plainRoles(m_tree.roles(inTree(path)).__variant().toHash());
    }

    QStringList products() override
    {
        const TreeContents contents = readDefaultTree(m_defaultPath, QString());
        return ProductTree(contents, std::nullopt).products();
    }

private:
    // "/settings/audio" is "/audio" there; anything that is not a setting is in no tree.
    static QString inTree(const QString& path)
    {
        const QString inside = path.mid(topPath().size());
        return inside.isEmpty() ? QStringLiteral("/") : inside;
    }

    const QString m_defaultPath;
    const TreeReader m_tree;
};

/// Asks the service on a bus. Connects with the first question.
class ServiceSource : public CompletionSource
{
public:
    explicit ServiceSource(const QString& bus)
        : m_bus(bus)
    {
    }

    QVector<KnownRow> rows(const QString& path, const QString& prefix) override
    {
        return source().rows(path, prefix);
    }
    QVariantMap roles(const QString& path, const QStringList& roles) override
    {
        return source().roles(path, roles);
    }

private:
    SettingsSource& source()
    {
        if (!m_settings) {
            m_settings.emplace(m_bus);
            m_source.emplace(*m_settings, limitMs());
            serveEvents(limitMs(),
                        [this] { return m_settings->state() != Settings::State::Connecting; });
        }
        return *m_source;
    }

    const QString m_bus;
    std::optional<RemoteSettings> m_settings;
    std::optional<SettingsSource> m_source;
};

// Other kinds of addresses start a program, such as ssh, or look a machine's name up.
bool isLocal(const QString& bus)
{
    QString address = bus;
    if (bus == QLatin1String("system"))
        address = QString::fromUtf8(qgetenv("DBUS_SYSTEM_BUS_ADDRESS"));
    else if (bus == QLatin1String("session"))
        address = QString::fromUtf8(qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    const QStringList places = address.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    return std::all_of(places.cbegin(), places.cend(), [](const QString& place) {
        return place.startsWith(QLatin1String("unix:"));
    });
}

// Null when settings cannot be looked up.
std::unique_ptr<CompletionSource> sourceFor(const Arguments& typed)
{
    const QString product = typed.value(general::product);
    // Texts in the language that the command will print them in.
    if (typed.isSet(general::language))
        Engine::translate(typed.value(general::language), typed.values(general::catalogues));
    if (typed.isSet(general::defaultPath)) {
        return std::make_unique<TreeSource>(typed.value(general::defaultPath),
                                            typed.value(general::writePath), product);
    }
    if (typed.isSet(general::inProcess)) {
        return std::make_unique<TreeSource>(Engine::builtInDefaultPath(),
                                            Engine::builtInWritePath(), product);
    }
    const QString bus =
        typed.isSet(general::bus) ? typed.value(general::bus) : QStringLiteral("system");
    if (typed.isSet(general::host) || !isLocal(bus))
        return nullptr;
    return std::make_unique<ServiceSource>(bus);
}

// ---------------------------------------------------------------------------------------------
// Input and output.
// ---------------------------------------------------------------------------------------------

Completion completeWords(const QStringList& words)
{
    CompletionPlace place;
    const auto source = sourceFor(readTyped(words.mid(0, words.size() - 1)).arguments);
    place.source = source.get();
    return complete(words, place);
}

// "WORD<TAB>DESCRIPTION", as fish reads it, or the word alone.
QString linesFor(const Completion& completion)
{
    if (completion.files == Completion::Files::Any)
        return QStringLiteral(":files\n");
    if (completion.files == Completion::Files::Directories)
        return QStringLiteral(":directories\n");
    QString lines;
    for (const Candidate& candidate : completion.candidates) {
        lines += candidate.word;
        if (!candidate.description.isEmpty())
            lines += QLatin1Char('\t') + candidate.description;
        lines += QLatin1Char('\n');
    }
    return lines;
}

// The line up to the cursor, and what of its last word bash is going to replace: in quotes what
// follows the quote, elsewhere what follows characters such as ":" and "=".
QString linesForBash(const QString& line, const QString& replaced)
{
    const TypedLine typed = splitTyped(line, escapableElsewhere);
    Completion completion = completeWords(typed.words.mid(1));
    const int start = typed.quote.isNull() ? line.size() - replaced.size() : typed.quoteStart + 1;
    const QString kept = line.mid(typed.wordStart, std::max(start - typed.wordStart, 0));
    const int length = splitTyped(kept, escapableElsewhere).words.last().size();
    for (Candidate& candidate : completion.candidates) {
        candidate.word = quoted(candidate.word.mid(length), typed.quote, escapableElsewhere);
    }
    return linesFor(completion);
}

} // namespace

int runComplete(int count, char** words)
{
    endInTime();
    QStringList decoded;
    for (int i = 0; i < count; ++i) {
        QString error;
        const auto word = decode(QByteArray(words[i]), QString(), &error);
        if (!word)
            return Done;
        decoded.append(*word);
    }
    const QString kind = decoded.isEmpty() ? QString() : decoded.takeFirst();
    QByteArray lines;
    if (kind == QLatin1String("--"))
        lines = linesFor(completeWords(decoded)).toUtf8();
    else if (kind == QLatin1String("--bash") && decoded.size() == 2)
        lines = linesForBash(decoded.at(0), decoded.at(1)).toUtf8();
    std::fwrite(lines.constData(), 1, size_t(lines.size()), stdout);
    std::fflush(stdout);
    return Done;
}

} // namespace tulo
