#include "tulo-cm/typedwords.h"

#include "tulo-cm/commandline.h"

#include <algorithm>

namespace tulo {

const Option* findOption(const Command* command, const QString& name)
{
    const auto find = [&name](const QVector<Option>& options) -> const Option* {
        const auto found =
            std::find_if(options.cbegin(), options.cend(), [&name](const Option& option) {
                return name == QLatin1String(option.name)
                    || (!name.isEmpty() && name == QLatin1String(option.letter));
            });
        return found == options.cend() ? nullptr : found;
    };
    const Option* const own = command == nullptr ? nullptr : find(command->options);
    return own != nullptr ? own : find(allOptions());
}

namespace {

bool looksLikeOption(const QString& word)
{
    return word.size() > 1 && word.startsWith(QLatin1Char('-')) && !looksNegative(word);
}

void addValue(const Option& option, const QString& value, Arguments* arguments)
{
    arguments->set(option, arguments->values(option) + QStringList(value));
}

// "--name", "--name=value", or letters behind one "-".
void readOption(const QString& word, TypedWords* typed)
{
    Arguments& arguments = typed->arguments;
    QStringList names;
    if (word.startsWith(QLatin1String("--"))) {
        names.append(word.mid(2).section(QLatin1Char('='), 0, 0));
    } else {
        for (const QChar letter : word.mid(1))
            names.append(letter);
    }
    for (const QString& name : names) {
        const Option* const option = findOption(arguments.command, name);
        if (option == nullptr)
            continue;
        if (*option->valueName == 0)
            arguments.set(*option, {});
        else if (word.contains(QLatin1Char('=')))
            addValue(*option, word.section(QLatin1Char('='), 1), &arguments);
        else
            typed->pending = option;
    }
}

} // namespace

TypedWords readTyped(const QStringList& words)
{
    TypedWords typed;
    Arguments& arguments = typed.arguments;
    for (const QString& word : words) {
        if (typed.pending != nullptr) {
            addValue(*typed.pending, word, &arguments);
            typed.pending = nullptr;
        } else if (!typed.isPositional && word == QLatin1String("--")) {
            typed.isPositional = true;
        } else if (!typed.isPositional && looksLikeOption(word)) {
            readOption(word, &typed);
        } else if (arguments.command == nullptr && arguments.positional.isEmpty()) {
            arguments.command = findCommand(word);
            // An unknown command takes what nobody knows.
            if (arguments.command == nullptr)
                arguments.positional.append(word);
        } else {
            arguments.positional.append(word);
        }
    }
    return typed;
}

} // namespace tulo
