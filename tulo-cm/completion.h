#pragma once

#include "tulo-cm/command.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

namespace tulo {

// Completion of words, for the shell and for the shells of the system. Everything comes from the
// table of commands and from the settings; nothing is changed, and nothing is printed.

/// One way to complete the word that is being typed.
struct Candidate
{
    QString word; ///< all of it, without quotes; safe to print
    QString description; ///< in one line, safe to print; empty when there is nothing to say
    bool isOpen = false; ///< more of the same word follows, as behind the "/" of a directory
};

/// What is known about the word that is being typed.
struct Completion
{
    enum class Files {
        None, ///< the word is not the name of a file
        Any, ///< it is: the system's shell completes it
        Directories ///< the same for a directory
    };

    QVector<Candidate> candidates;
    Files files = Files::None;
};

/// A row of a directory, or what the names of several begin with.
struct KnownRow
{
    QString name; ///< or the beginning
    QString title; ///< where it is known; of a beginning, what there is to say
    bool isDirectory = false;
    bool isBeginning = false;
};

/// Where completion looks settings up. What cannot be found, or not in time, is empty.
class CompletionSource
{
public:
    CompletionSource() = default;
    virtual ~CompletionSource() = default;
    Q_DISABLE_COPY(CompletionSource)

    /// The rows of a directory whose names begin with `prefix`: all, as far as there is time with
    /// titles, or none. Others may be among them. Beginnings stand for rows where there are more
    /// than can be read in time.
    virtual QVector<KnownRow> rows(const QString& path, const QString& prefix) = 0;
    /// Some roles of a setting or directory; no roles: all.
    virtual QVariantMap roles(const QString& path, const QStringList& roles) = 0;
    /// The product postfixes of the default tree.
    virtual QStringList products() { return {}; }
};

/// Where a line is typed.
struct CompletionPlace
{
    bool inShell = false;
    QString directory; ///< the setting path that relative ones begin at, without "/" at the end
    CompletionSource* source = nullptr; ///< null: settings cannot be looked up
};

/// Completes the last one of `words`, which may be empty: what was typed so far, without quotes and
/// without the program's name.
Completion complete(const QStringList& words, const CompletionPlace& place);

} // namespace tulo
