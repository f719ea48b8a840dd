#pragma once

#include "tests/support/childprocess.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <functional>

#include <sys/types.h>

struct VTerm;

/// A program on a terminal of a test's own, which is its standard input, output and error. What it
/// writes comes on a screen, as a person would see it. Every wait is bounded and ends as soon as
/// the screen shows what is waited for; a program that still runs is killed with the object.
class Terminal
{
public:
    explicit Terminal(int columns = 80, int rows = 24);
    ~Terminal();
    Q_DISABLE_COPY(Terminal)

    /// Before start(): the program gets this process's environment with these changes, and
    /// TERM=xterm, which is what the screen understands.
    void setVariable(const QByteArray& name, const QByteArray& value);
    void start(const QString& program, const QStringList& arguments);

    /// What a keyboard sends.
    void type(const QByteArray& keys);
    void resize(int columns, int rows);
    /// The terminal goes away, as when its window is closed.
    void hangUp();
    void sendSignal(int number) const;

    /// The rows of the screen, a line each, without blanks at the end and without the empty ones
    /// below. "|" stands in front of the cursor, with the blanks before it.
    QString screen() const;
    /// Waits until the screen is `expected`; returns what it is then, or when time is over. See
    /// COMPARE_SCREEN.
    QString screenSoon(const QString& expected);
    /// Waits until a part of the screen is `text`.
    bool waitFor(const QString& text);
    /// Waits until the cursor is behind `text` and nothing follows it.
    bool waitForEnd(const QString& text);

    /// Waits until the program, from its start, has written `text`.
    bool waitForOutput(const QByteArray& text);
    /// All that it has written, with the line ends of a file.
    QByteArray output() const;

    /// Waits until the program has left the terminal and ended. Returns its exit code; -1 after a
    /// signal, or when it did not end in time.
    int wait();

private:
    void keepCursorOnScreen();
    bool readUntil(const std::function<bool()>& condition);

    VTerm* const m_emulator;
    int m_columns;
    int m_rows;
    QList<QPair<QByteArray, QByteArray>> m_variables;
    QByteArray m_output;
    int m_descriptor = -1;
    pid_t m_child = -1;
};

/// Waits for a whole screen, and shows both when another one stays.
#define COMPARE_SCREEN(terminal, expected) QCOMPARE((terminal).screenSoon(expected), expected)
