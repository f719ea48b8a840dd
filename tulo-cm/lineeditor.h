#pragma once

#include "tulo-cm/output.h"

#include <QString>
#include <QStringList>

#include <cwchar>
#include <functional>
#include <memory>
#include <string>

struct editline;
struct historyW;

namespace tulo {

/// Lines typed on a terminal, with editing, history and search, while events are served. What the
/// process prints meanwhile appears above the line that is being typed, if it is printed by the
/// output or by the C++ streams, as log records are.
///
/// One object at a time, on the main thread, with a SignalHandler that is interactive. Between two
/// lines the terminal is nearly as it was found.
class LineEditor
{
public:
    /// Whether the terminal can do what editing needs.
    static bool isPossible();

    /// A change in front of the cursor.
    struct Edit
    {
        int removed = 0; ///< characters
        QString inserted;
    };
    /// What Tab does with a line up to the cursor. It may print, and serve events.
    using Completer = std::function<Edit(const QString& line)>;

    LineEditor(Output& output, Completer completer);
    ~LineEditor();
    Q_DISABLE_COPY(LineEditor)

    enum class Result {
        Line,
        Dropped, ///< by SIGINT
        End ///< of the input, or by another signal
    };
    /// Waits for a line.
    Result next(const QString& prompt, QString* line);
    /// The lines to go back to, the latest one last.
    void setHistory(const QStringList& lines);

private:
    class AboveLine;

    static const wchar_t* promptOf(editline* editor);
    static int readCharacter(editline* editor, wchar_t* character);
    static unsigned char completeWord(editline* editor, int key);
    static unsigned char dropLine(editline* editor, int key);

    void bindKeys();
    int read(wchar_t* character);
    bool decode(char byte, wchar_t* character);
    void update();
    void hide();
    void show();
    void moveToEnd();
    int number(const char* capability) const;
    int rowOfCursor() const;

    Output& m_output;
    const Completer m_completer;
    editline* const m_editor;
    historyW* const m_history;
    std::wstring m_prompt;
    std::mbstate_t m_decoder = {};
    bool m_isEditing = false; ///< the line is on the screen, or hidden
    bool m_isHidden = false;
    bool m_isDropped = false; ///< by a key
    std::unique_ptr<AboveLine> m_standardOutput;
    std::unique_ptr<AboveLine> m_standardError;
};

} // namespace tulo
