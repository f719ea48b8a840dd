#pragma once

#include "tulo-cm/command.h"

#include <QString>
#include <QStringList>

namespace tulo {

/// The words of a command line that were typed before the one that is being typed.
struct TypedWords
{
    Arguments arguments;
    const Option* pending = nullptr; ///< the next word is its value
    bool isPositional = false; ///< after "--"
};

/// The command and the options among the words, whatever is wrong with them.
TypedWords readTyped(const QStringList& words);

/// The option with that name or letter, null when there is none. That of the command, if there is
/// one, comes first: the same name may stand for another option elsewhere.
const Option* findOption(const Command* command, const QString& name);

} // namespace tulo
