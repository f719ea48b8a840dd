#include "tulo-cm/completion.h"

#include "tulo-cm/commandline.h"
#include "tulo-cm/help.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/typedwords.h"
#include "tulo-cm/verbs.h"

#include "trees/plainjson.h"
#include "trees/printable.h"
#include "trees/separator.h"

#include <QDir>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

namespace tulo {
namespace {

class Completer
{
public:
    Completer(const TypedWords& typed, const QString& word, const CompletionPlace& place)
        : m_arguments(typed.arguments)
        , m_place(place)
        , m_word(word)
    {
    }

    Completion result() const { return m_completion; }

    void addCommands()
    {
        for (const Command& command : commandTable()) {
            if (isTaken(command, m_place.inShell))
                add(QLatin1String(command.name), shortSummary(command));
        }
    }

    void addOptions()
    {
        const Command* const command = m_arguments.command;
        if (command == nullptr && m_place.inShell)
            return;
        for (const Option& option : command == nullptr ? generalOptions() : command->options) {
            if (m_arguments.isSet(option) && !option.isRepeatable)
                continue;
            const QString description = QString::fromUtf8(option.description);
            add(spelled(option), description);
            if (*option.letter != 0)
                add(QLatin1Char('-') + QLatin1String(option.letter), description);
        }
    }

    void addArgument()
    {
        const Command* const command = m_arguments.command;
        if (command == nullptr || command->arguments.isEmpty())
            return;
        const QVector<Argument>& known = command->arguments;
        const Argument::Count count = known.last().count;
        const bool isUnlimited =
            count == Argument::Count::OneOrMore || count == Argument::Count::Any;
        const int index = m_arguments.positional.size();
        if (index >= known.size() && !isUnlimited)
            return;
        const Argument& argument = known.at(std::min(index, known.size() - 1));
        addWords(argument.kind, argument.words);
    }

    /// `before` is what stands in front of the value in the same word: "--name=".
    void addOptionValue(const Option& option, const QString& before)
    {
        m_before = before;
        m_word.remove(0, before.size());
        m_given = m_arguments.values(option);
        addWords(option.kind, option.words);
    }

private:
    void add(const QString& word, const QString& description, bool isOpen = false)
    {
        const QString whole = m_before + word;
        if (word.startsWith(m_word) && !m_given.contains(word) && escaped(whole) == whole)
            m_completion.candidates.append({ whole, escaped(description), isOpen });
    }

    void addWords(WordKind kind, WordList words)
    {
        switch (kind) {
        case WordKind::Other:
            break;
        case WordKind::Product:
            addProducts();
            break;
        case WordKind::Language:
            addLanguages();
            break;
        case WordKind::Command:
            addCommands();
            break;
        case WordKind::PathOrTree: {
            const Option* const standalone = m_arguments.command->standalone;
            if (standalone != nullptr && m_arguments.isSet(*standalone))
                addFiles(Completion::Files::Directories);
            else
                addPaths();
            break;
        }
        case WordKind::Path:
            addPaths();
            break;
        case WordKind::SettingsDirectory:
            addPaths(false);
            break;
        case WordKind::Role:
            addRoles();
            break;
        case WordKind::Value:
            addValues(Verb::Operand::Value);
            break;
        case WordKind::Verb:
            for (const Verb& verb : verbs)
                add(QLatin1String(verb.name), QString::fromUtf8(verb.description));
            break;
        case WordKind::Operand:
            addOperands();
            break;
        case WordKind::Tree:
        case WordKind::Directory:
            addFiles(Completion::Files::Directories);
            break;
        case WordKind::File:
            addFiles(Completion::Files::Any);
            break;
        case WordKind::ListedMany: {
            // Behind the last comma.
            const int start = m_word.lastIndexOf(QLatin1Char(',')) + 1;
            m_before += m_word.left(start);
            m_word.remove(0, start);
            addListed(words);
            break;
        }
        case WordKind::Listed:
            addListed(words);
            break;
        }
    }

    void addFiles(Completion::Files files)
    {
        if (!m_place.inShell)
            m_completion.files = files;
    }

    // One level, too: "ID=SEVERITY" up to the "=" first.
    void addListed(WordList words)
    {
        QString last;
        for (const ListedWord& listed : words()) {
            const int equals = listed.word.indexOf(QLatin1Char('='), m_word.size());
            const QString word = listed.word.left(equals + 1);
            if (equals < 0)
                add(listed.word, listed.description);
            else if (word != last)
                add(word, listed.description, true);
            last = word;
        }
    }

    void addProducts()
    {
        if (m_place.source == nullptr)
            return;
        const QStringList products = m_place.source->products();
        for (const QString& product : products) {
            if (!product.isEmpty())
                add(product, QString());
        }
    }

    // Those of the catalogues in the directories given: "settings_de.qm".
    void addLanguages()
    {
        static const QRegularExpression ending(QStringLiteral("_([a-z]+(_[A-Za-z0-9]+)?)\\.qm$"));
        QStringList languages;
        const QStringList directories = m_arguments.values(general::catalogues);
        for (const QString& directory : directories) {
            const QStringList files = QDir(directory).entryList(QDir::Files);
            for (const QString& file : files)
                languages.append(ending.match(file).captured(1));
        }
        languages.removeDuplicates();
        languages.removeAll(QString());
        for (const QString& language : languages)
            add(language, QString());
    }

    // A path as it was typed, in full.
    QString fullPath(const QString& typed) const
    {
        const bool isRelative = !typed.isEmpty() && !typed.startsWith(QLatin1Char('/'));
        const QString path = isRelative ? completePath(typed, m_place.directory)
            : typed.isEmpty()           ? m_place.directory
                                        : typed;
        QStringList names;
        for (const QString& name : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
            if (name == QLatin1String("..") && !names.isEmpty())
                names.removeLast();
            else if (name != QLatin1String(".") && name != QLatin1String(".."))
                names.append(name);
        }
        return QLatin1Char('/') + names.join(QLatin1Char('/'));
    }

    // One level: the rows of the directory that the word names up to its last "/".
    void addPaths(bool withSettings = true)
    {
        if (m_place.source == nullptr)
            return;
        const QString typed = m_word.left(m_word.lastIndexOf(QLatin1Char('/')) + 1);
        const QString directory = fullPath(typed);
        const QString top = QStringLiteral("/");
        if (directory == top) {
            const QVariantMap roles = m_place.source->roles(topPath(), { roles::title() });
            if (!roles.isEmpty())
                addPath(m_word.isEmpty() ? top : typed, topPath().mid(1), true,
                        roles.value(roles::title()).toString());
        }
        if (!isAtOrBelow(directory, topPath()))
            return;
        const QVector<KnownRow> rows = m_place.source->rows(directory, m_word.mid(typed.size()));
        for (const KnownRow& row : rows) {
            if (row.isBeginning)
                add(typed + row.name, row.title, true);
            else if (row.isDirectory || withSettings)
                addPath(typed, row.name, row.isDirectory, row.title);
        }
    }

    void addPath(const QString& directory, const QString& name, bool isDirectory,
                 const QString& title)
    {
        const QString end = isDirectory ? QStringLiteral("/") : QString();
        add(directory + name + end, title == name ? QString() : title, isDirectory);
    }

    // The first argument; the top when there is none.
    QString pathArgument() const { return fullPath(m_arguments.positional.value(0)); }

    QVariantMap rolesOf(const QString& path, const QStringList& names) const
    {
        const bool isKnown = m_place.source != nullptr && isAtOrBelow(path, topPath());
        return isKnown ? m_place.source->roles(path, names) : QVariantMap();
    }

    void addRoles()
    {
        const QVariantMap found = rolesOf(pathArgument(), {});
        QStringList names;
        for (const QString& role : roles::known()) {
            // Those of a directory's rows are not its own.
            if (found.isEmpty() || isDirectory(found) || found.contains(role))
                names.append(role);
        }
        names += found.keys();
        names.removeDuplicates();
        for (const QString& role : names)
            add(role, QString());
    }

    void addOperands()
    {
        const QString name = m_arguments.positional.value(1);
        for (const Verb& verb : verbs) {
            if (name == QLatin1String(verb.name))
                addValues(verb.operand);
        }
    }

    void addValues(Verb::Operand operand)
    {
        const QStringList names { roles::value(), roles::defaultValue(), roles::edit(),
                                  roles::encrypted(), roles::type() };
        const QString path = pathArgument();
        QVariantMap setting = rolesOf(path, names);
        if (isDirectory(setting))
            return;
        // One that is not there yet will have those of its directory.
        if (setting.isEmpty()) {
            setting = rolesOf(parentOf(path), names);
            setting.remove(roles::value());
        }
        if (!setting.value(roles::encrypted()).toBool())
            addValuesOf(setting, operand);
    }

    void addValuesOf(const QVariantMap& setting, Verb::Operand operand)
    {
        const QVariantMap edit = setting.value(roles::edit()).toMap();
        const QVariant value = setting.value(roles::value());
        const QVariant defaultValue = setting.value(roles::defaultValue());
        const QString values = QStringLiteral("values");
        if (operand == Verb::Operand::Element) {
            const QVariantMap elements = edit.value(QStringLiteral("elements")).toMap();
            const QVariantList all = elements.value(values).toList() + value.toList();
            for (const QVariant& element : all)
                addValue(element, QString());
        } else if (operand == Verb::Operand::Value) {
            QVariantList all = edit.value(values).toList();
            if (edit.value(QStringLiteral("kind")) == QLatin1String("bool")
                || value.userType() == QMetaType::Bool
                || defaultValue.userType() == QMetaType::Bool)
                all += { true, false };
            all += { value, defaultValue };
            for (const QVariant& one : qAsConst(all))
                addValue(one, remarkOn(one, setting));
        }
    }

    static QString remarkOn(const QVariant& value, const QVariantMap& setting)
    {
        QStringList remarks;
        if (isSameValue(value, setting.value(roles::value())))
            remarks.append(QStringLiteral("now"));
        if (isSameValue(value, setting.value(roles::defaultValue())))
            remarks.append(QStringLiteral("default"));
        return remarks.join(QStringLiteral(", "));
    }

    // Once, spelled so that a command reads this value.
    void addValue(const QVariant& value, const QString& remark)
    {
        if (!value.isValid())
            return;
        const QString text = value.toString();
        const QString json = QString::fromUtf8(jsonOf(value));
        const bool isPlain = value.userType() == QMetaType::QString && !text.isEmpty()
            && text != QLatin1String("null") && !QStringLiteral("-\"[{").contains(text.at(0));
        const QString word = isPlain ? text : json;
        if (!m_values.contains(word))
            add(word, remark);
        m_values.insert(word);
    }

    const Arguments& m_arguments;
    const CompletionPlace& m_place;
    QString m_before;
    QString m_word;
    QStringList m_given; ///< values that the option has already
    QSet<QString> m_values; ///< values of the setting that were added
    Completion m_completion;
};

} // namespace

Completion complete(const QStringList& words, const CompletionPlace& place)
{
    const TypedWords typed = readTyped(words.mid(0, words.size() - 1));
    const QString word = words.value(words.size() - 1);
    Completer completer(typed, word, place);
    const int equals = word.indexOf(QLatin1Char('='));
    const bool isLong = word.startsWith(QLatin1String("--"));
    if (typed.pending != nullptr) {
        completer.addOptionValue(*typed.pending, QString());
    } else if (!typed.isPositional && isLong && equals >= 0) {
        const Option* const option = findOption(typed.arguments.command, word.mid(2, equals - 2));
        if (option != nullptr)
            completer.addOptionValue(*option, word.left(equals + 1));
    } else if (!typed.isPositional && word.startsWith(QLatin1Char('-')) && !looksNegative(word)) {
        completer.addOptions();
    } else if (typed.arguments.command == nullptr && typed.arguments.positional.isEmpty()) {
        completer.addCommands();
    } else {
        completer.addArgument();
    }
    return completer.result();
}

} // namespace tulo
