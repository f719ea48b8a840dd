#pragma once

#include "tulo-cm/output.h"
#include "tulo-cm/rownames.h"

#include <tulo/settings.h>

#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <map>
#include <memory>

namespace tulo {

struct VisitedNode;

/// The paths whose changes are printed, and the printing. An event is printed when it comes, also
/// in the middle of another command. After events were missed, the values that differ from those
/// printed or read before are printed as if they had just changed. Of a tree, a person gets the
/// paths of rows instead of their indexes, and of each change one line that says most.
class Watches : public QObject
{
    Q_OBJECT

public:
    /// What to watch.
    struct Request
    {
        QStringList paths;
        Watch::Scope scope = Watch::Scope::Node;
        int count = 0; ///< ends after so many events of them together; 0: without limit
        bool isInitial = false; ///< begins with what there is now, as if it had just changed
    };

    /// Both outlive the watches.
    Watches(Settings& settings, Output& output);
    ~Watches() override;

    /// Prints an error, watches none of the paths and returns the exit code when one of them cannot
    /// be watched. A path that is watched already is taken over.
    int add(const Request& request);
    void remove(const QString& path);
    void removeAll();
    bool isEmpty() const { return m_entries.empty(); }
    /// Of the first watch that failed after it had been added; its error was printed.
    int exitCode() const { return m_exitCode; }

private:
    struct Entry
    {
        std::unique_ptr<Watch> watch;
        std::shared_ptr<int> left; ///< shared by those that were added together
        /// By path, as far as they are known: values of settings, names in directories.
        QHash<QString, QByteArray> contents;
        RowNames rowNames; ///< of a tree, for a person
        QString newValue; ///< path of the last value event, until its data event
    };

    bool namesRows(const Entry& entry) const;
    bool isSaidAlready(Entry& entry, const Event& event, const QString& row) const;
    void listAgain(const QString& watched, const QString& directory);

    void addEntry(const QString& path, const Request& request, const std::shared_ptr<int>& left);
    int read(const QString& watched, Watch::Scope scope, QVector<VisitedNode>* nodes);
    int start(const QString& path, QVector<VisitedNode>* nodes);
    void printInitial(const QString& path, const QVector<VisitedNode>& nodes);

    void on_watch_changed(const QString& watched, const Event& event);
    void on_watch_failed(const QString& watched, const Error& error);
    void on_settings_stateChanged(Settings::State state);
    void on_missed_timeout();
    void catchUp(const QString& watched);

    Event eventOf(const VisitedNode& node);
    void tell(const QString& watched, const Event& event);
    void tellOfRows(const QString& watched, const QString& directory, const QByteArray& before,
                    const QByteArray& now);
    void print(const Event& event, const QString& row = QString());
    void count(const QString& watched);

    Settings& m_settings;
    Output& m_output;
    std::map<QString, Entry> m_entries; ///< by path
    QTimer m_missed; ///< all watches miss events at the same time
    int m_exitCode = Done;
};

} // namespace tulo
