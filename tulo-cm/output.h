#pragma once

#include "tulo-cm/table.h"
#include "tulo-cm/terminal.h"

#include <tulo/error.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>
#include <utility>

namespace tulo {

/// How the program ends where no error of the settings says it; documented for scripts.
enum ExitCode : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    Adjusted = 5, ///< stored, but not as it was asked for
    Findings = 8,
};

/// The exit code of several steps: that of the first failure.
inline int firstFailure(int earlier, int later)
{
    return earlier != Done ? earlier : later;
}

/// What the program prints: results on standard output, everything else on standard error.
///
/// Settings, file names and messages can hold anything, so all of it is printed escaped(); only
/// value() gives a pipe the value as it is. On a terminal, tables fit its width; what they cut, a
/// pipe and JSON have. JSON never has colours.
///
/// A reader that goes away is not an error: further output is dropped, and commands stop when
/// isClosed() is true.
class Output
{
public:
    enum class Form { Text, Json };

    explicit Output(Form form);
    /// Writes what is left.
    ~Output();
    Q_DISABLE_COPY(Output)

    bool isJson() const { return m_form == Form::Json; }
    /// True on a terminal, where results may have a shape that programs do not expect.
    bool isForPeople() const { return !isJson() && m_isTerminal; }
    /// True when rows of settings are marked, by characters or colours.
    bool showsMarks() const { return isForPeople() || m_hasColours; }

    void setColours(Colours colours);
    /// From now on nothing goes through a pager.
    void setNoPager() { m_mayPage = false; }

    /// From now on errors are printed among the results if the form is JSON, so that a program
    /// that drives the shell finds them in their place.
    void setErrorsInPlace() { m_errorsInPlace = true; }

    /// From now on what is reported for people names this line of the input; none for 0.
    void setInputLine(int line) { m_inputLine = line; }

    /// Called before anything is written; null for none.
    void setBeforeWriting(const std::function<void()>& before) { m_beforeWriting = before; }

    /// One line of text for people.
    void line(const QString& text, Style style = Style::Plain);
    /// Text of the program itself, which may have several lines.
    void text(const QString& text);
    /// One role by itself: as it is for a program that reads it, as in a table on a terminal.
    void value(const QVariant& role);
    /// One object in one line for programs, written at once.
    void object(const QVariantMap& object);
    /// For programs: that the action at `path` was done. Prints nothing for people.
    void done(const QString& path);
    /// Rows of cells in aligned columns, fitted to a terminal. The first line is a heading when
    /// `heading` is not empty.
    void table(const QStringList& heading, const QVector<TableRow>& rows);
    /// The same with nothing cut: names, and what is said about them.
    void list(const QVector<QStringList>& rows);
    /// Text without a line end, for the shell's prompt.
    void prompt(const QString& text);

    // One line that says what was not done, or not as asked; each returns the exit code for it.

    int report(const Error& error);
    /// The line itself is wrong.
    int reportUsage(const QString& message);
    /// What no error of the settings says. `name` is for programs.
    int report(int exitCode, const char* name, const QString& message, const QString& path);

    /// One line beside the results, on standard error.
    void note(const QString& text);
    /// Tells whether a person sees what helps after an error.
    bool showsHints() const;
    /// The first path since the last call of which was reported that there is no such path.
    QString takeUnknownPath() { return std::exchange(m_unknownPath, QString()); }

    /// Writes what was printed so far.
    void flush();
    /// True when the reader of the results has gone.
    bool isClosed() const { return m_closed; }
    /// True when results could not be written, because the disk is full for example.
    bool hasFailed() const { return m_failed; }

private:
    friend class Paging;

    void announceWriting() const;
    void reportObject(const QVariantMap& object);
    void error(const QString& text, Style style);
    void printError(const QByteArray& line);
    void finishPaging();

    const Form m_form;
    const bool m_isTerminal;
    bool m_hasColours = false;
    bool m_hasErrorColours = false;
    bool m_mayPage = true;
    bool m_isPaging = false; ///< results and errors are held back
    bool m_errorsInPlace = false;
    int m_inputLine = 0;
    bool m_closed = false;
    bool m_failed = false;
    QByteArray m_pending;
    QString m_unknownPath;
    QByteArray m_pendingErrors; ///< while paging
    std::function<void()> m_beforeWriting;
};

/// Long results of a command: what is printed while the object lives goes through a pager when it
/// does not fit on the screen, standard input and output being a terminal. Errors follow it.
/// Changes nothing elsewhere.
class Paging
{
public:
    explicit Paging(Output& output);
    ~Paging();
    Q_DISABLE_COPY(Paging)

private:
    Output& m_output;
    const bool m_isFirst; ///< not within another one
};

/// A role for people, in one line and escaped(): a text as it is, quoted when it is empty or needs
/// escapes; anything else as JSON; "-" for one that the node lacks.
QString shownInCell(const QVariant& role);

} // namespace tulo
