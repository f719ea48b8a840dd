#pragma once

#include "tulo/error.h"
#include "tulo/export.h"
#include "tulo/reply.h"

#include <QHash>
#include <QMetaType>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>
#include <optional>

namespace tulo {

// Shapes. A path is a full one, "/settings/audio/volume". A value is a QVariant of one of five
// types: bool, qlonglong (qulonglong above its range), double, QString, QVariantList; its type is
// its kind. Elements of a list may also be QVariantMaps and nest. Roles are a QVariantMap by name:
// "value", "defaultValue", "title", "edit" (a QVariantMap), ...; what a node lacks is not in it.
// Texts are plain strings in the language of the settings.

/// One setting or directory of getMany().
struct Node
{
    QString path;
    QVariantMap roles;
    Error error; ///< why it cannot be served, in place of the roles
};

/// One row of a directory.
struct Row
{
    QString name;
    bool isDirectory = false;
    QVariantMap roles; ///< of those asked for, the ones that the row has
    Error error; ///< why it cannot be served, in place of the roles
};

/// The answer to rows().
struct Rows
{
    int count = 0; ///< rows of the whole directory
    int version = 0; ///< grows with every change of the rows
    QVariantMap directory; ///< the directory's own roles
    QVector<Row> rows; ///< from the first one asked for; fewer than asked for when more do not fit
};

/// What a change came to.
struct Change
{
    QVariantMap stored; ///< the roles stored now; after a dry run those that would be
    bool isAdjusted = false; ///< the value stored is not the one asked for
    QVariant asked; ///< when adjusted: the value asked for, of an operation its result
    QString reason; ///< when adjusted: the constraint and its limit, in one line
};

/// One change of setMany().
struct Assignment
{
    QString path;
    QVariant value; ///< may be invalid where there are roles
    QVariantMap roles = {}; ///< those of setRoles() that change with it, beside the value
};

/// Conditions and manner of a change.
struct ChangeOptions
{
    QVariant ifValue; ///< valid: change only if this is the value now, else Conflict
    std::optional<qint64> ifTimestamp; ///< change only if this is the timestamp now, else Conflict
    bool isDryRun = false; ///< validate and answer, change nothing
};

/// One role of a setting or directory as one of its files has it, or as it came about otherwise:
/// explain() tells them all.
struct RoleOrigin
{
    enum class State {
        Effective, ///< this is what get() answers
        Hidden, ///< another layer takes its place
        Ignored ///< has no effect where it stands
    };
    enum class Layer {
        BuiltIn, ///< set on reading
        Template, ///< ".meta" of the directory, for a setting without a default file
        Default, ///< the default file; of a directory its ".meta"
        Product, ///< the default file of the product variant
        Written, ///< the file in the writable tree
        Pending, ///< accepted, and not yet in the written file
        Cached ///< read earlier; the files say something else by now
    };

    QString role; ///< empty when it is about a whole file
    Layer layer = Layer::BuiltIn;
    State state = State::Effective;
    QVariant value; ///< invalid where there is none, or where it would show a secret
    QString file; ///< with the tree's directory in front; empty when it is in no file
    int line = 0; ///< where it stands in the file, from 1; 0 when not known
    int column = 0; ///< in characters, from 1
    QString reason; ///< why it is hidden or ignored, in one line
};

/// A word for programs, such as "hidden" or "template".
TULO_SETTINGS_EXPORT QString nameOf(RoleOrigin::State state);
TULO_SETTINGS_EXPORT QString nameOf(RoleOrigin::Layer layer);
/// None for another word.
TULO_SETTINGS_EXPORT std::optional<RoleOrigin::State> stateNamed(const QString& name);
TULO_SETTINGS_EXPORT std::optional<RoleOrigin::Layer> layerNamed(const QString& name);

/// What a reset goes to.
struct ResetOptions
{
    bool isRecursive = false; ///< directories with everything below, read-only settings included
    /// Of a recursive reset: what is not reset. Each is a path such as "/settings/audio", in
    /// which "*" and "?" stand for any characters of a name; everything below one that matches is
    /// kept as well. One that no path can match is refused.
    QStringList keep;
};

/// How the settings are doing.
struct Status
{
    QString version; ///< of the program that serves them
    QString product; ///< the product variant's postfix; empty for none
    QString defaultPath; ///< directory of the default tree, where they are served
    QString writePath; ///< directory of the writable tree
    bool isWritable = false; ///< changes are accepted
    int pendingWrites = 0; ///< settings accepted and not yet written
    int unsavedCount = 0; ///< settings whose last write failed or was not confirmed
    QString lastWriteError; ///< the last failure to write or sync; empty when there was none
    qint64 processId = 0; ///< of the process that serves them; 0 when not known
};

/// Something that happened to a setting or directory.
struct Event
{
    enum class Kind {
        Value, ///< a setting has a new value; not told of an encrypted setting
        Data, ///< roles of a setting may have changed; follows every accepted change
        Rows ///< a row of the directory `path` changed
    };

    Kind kind = Kind::Data;
    QString path;
    QVariant value; ///< of a value event; may be invalid: read it
    QString command; ///< of a rows event: the row's index, after "+" new, after "-" gone
    int version = 0; ///< of a rows event: the rows' version now
};

class Settings;

/// Announces the events of one setting or directory, or of all at and below it, as long as it
/// lives and the settings do. Same thread as the settings.
class TULO_SETTINGS_EXPORT Watch : public QObject
{
    Q_OBJECT

public:
    enum class Scope { Node, Tree };

    ~Watch() override;

    const QString& path() const { return m_path; }
    Scope scope() const { return m_scope; }

signals:
    /// In the order in which they happened.
    void changed(const tulo::Event& event);
    /// Events may be missing, because the service or the connection to it ended and is there
    /// again: read what you keep again. Everything after it is complete.
    void missed();
    /// Nothing will be announced: the path is refused, or the bus refused to subscribe.
    void failed(const tulo::Error& error);

protected:
    // For the library's own kinds of watches, of which a program may have thousands: they take what
    // happened without signals and connections.

    Watch(Settings* settings, const QString& path, Scope scope);
    /// Adds the watch to the settings. Once, by the complete object.
    void begin();
    /// Null when they are gone.
    Settings* settings() const { return m_settings; }

    // Emit the signals.
    virtual void deliver(const Event& event);
    virtual void deliverMissed();
    virtual void deliverFailed(const Error& error);

private:
    friend class Settings;

    Settings* m_settings; ///< null when they are gone
    const QString m_path;
    const Scope m_scope;
};

/// The settings of a device, in this process or behind a bus: every program works on either alike.
///
/// Nothing here blocks: each request answers through its Reply, from the event loop. Requests are
/// carried out in the order in which they were made. The events of a change come before its
/// answer. A change is announced to all watches, this program's own included. A rejected change
/// changes nothing and is not announced; a number outside its range or between two steps is
/// adjusted, and the answer says so.
///
/// watch() followed by get() misses nothing: what happens after the answer is announced.
///
/// Lives on one thread, which runs an event loop. Replies that have not finished when the settings
/// are destroyed fail with Cancelled.
class TULO_SETTINGS_EXPORT Settings : public QObject
{
    Q_OBJECT

public:
    enum class State {
        Connecting, ///< it is not known yet whether the settings can be reached
        Ready, ///< requests are served
        Away ///< the service or the bus is gone; requests fail with Unavailable or bring it back
    };
    Q_ENUM(State)

    /// The most paths or changes of one getMany(), and of one setMany().
    static constexpr int maximumPaths = 1000;
    static constexpr int maximumChanges = 10000;
    /// The most rows of one answer.
    static constexpr int maximumRows = 500;

    /// Detaches the watches.
    ~Settings() override;

    virtual State state() const = 0;

    /// Some roles of a setting or directory: those that it has. No roles: all.
    virtual Reply<QVariantMap> get(const QString& path, const QStringList& roles) = 0;
    /// The same of many, an entry for each path in their order.
    virtual Reply<QVector<Node>> getMany(const QStringList& paths, const QStringList& roles) = 0;
    /// The rows `first` to `last` (inclusive, from 0) of a directory; at least one when there is
    /// one, at most maximumRows. `last` below `first` asks for the directory only.
    virtual Reply<Rows> rows(const QString& path, int first, int last,
                             const QStringList& roles) = 0;

    /// Where each role of a setting or directory comes from: the effective ones, which are those
    /// that get() answers, and then what is hidden or ignored in its files.
    virtual Reply<QVector<RoleOrigin>> explain(const QString& path) = 0;

    // Changes. A value of another type that the setting's kind can hold without loss is taken: any
    // number type, and a number or truth value where a text is wanted, as its text. A QVariantMap
    // with the one entry "bool", "int", "double", "string" or "list" names its kind, and nothing
    // else will do. The change is on disk about a second later.

    virtual Reply<Change> set(const QString& path, const QVariant& value,
                              const ChangeOptions& options = {}) = 0;
    /// Some of value, timestamp (ms since 1970, qlonglong), id (QString) and disabled (bool).
    virtual Reply<Change> setRoles(const QString& path, const QVariantMap& roles,
                                   const ChangeOptions& options = {}) = 0;
    /// `verb` is set, add, multiply, toggle, append, remove, next or previous; an invalid operand
    /// for a verb that needs none.
    virtual Reply<Change> apply(const QString& path, const QString& verb, const QVariant& operand,
                                const ChangeOptions& options = {}) = 0;
    /// All or none, with no other change in between: the first that is rejected is the error, with
    /// its path. A path twice is refused. Only isDryRun counts of the options. A power cut may keep
    /// part.
    virtual Reply<QVector<Change>> setMany(const QVector<Assignment>& assignments,
                                           const ChangeOptions& options = {}) = 0;

    /// Discards what was changed, so that the image's defaults show, also those of a later image.
    /// Answers with the paths of the settings that were reset, sorted: those of `paths`, and below
    /// them, that were changed. A setting without a default, such as one that was made from a
    /// template, is gone then. All or none, whatever interrupts it, and on disk when it is
    /// answered. NotSaved when a change that was accepted before cannot be written first.
    virtual Reply<QStringList> reset(const QStringList& paths,
                                     const ResetOptions& options = {}) = 0;

    /// Writes all pending changes and has the disk confirm them. Answers with the number of
    /// settings whose last write failed: 0 when everything accepted is on disk.
    virtual Reply<int> flush() = 0;
    /// Discards cached values: settings are read from their files again. Answers true.
    virtual Reply<bool> dropCache() = 0;
    virtual Reply<Status> status() = 0;
    /// The SHA-256, in hexadecimal digits, of the default tree: tells one image from another.
    virtual Reply<QString> treeDigest() = 0;
    /// What was done since the settings were opened, as numbers (qlonglong): "requests" carried
    /// out, "failed" of them, "changes" made, "resets" of settings, "announcements", "flushes",
    /// "writes" of files and "writeErrors"; and how many values are kept in memory, "keptValues".
    /// There may be more of them later.
    virtual Reply<QVariantMap> statistics() = 0;
    /// Paths of settings whose last write failed or was not confirmed, at most so many.
    virtual Reply<QStringList> unsavedPaths(int maximum) = 0;

    /// Events of one setting or directory.
    [[nodiscard]] std::unique_ptr<Watch> watch(const QString& path);
    /// Events of everything at and below `path`.
    [[nodiscard]] std::unique_ptr<Watch> watchTree(const QString& path);

signals:
    void stateChanged(tulo::Settings::State state);

protected:
    Settings();

    // For the kinds of settings: they deliver, Settings finds the watches.

    /// `watch` is new. A later watchRemoved() ends it.
    virtual void watchAdded(Watch* watch) = 0;
    virtual void watchRemoved(Watch* watch) = 0;

    /// Tells the watches of the event's path. A handler may add and destroy watches.
    void deliver(const Event& event);
    /// Tells all watches that events may be missing.
    void deliverMissed();
    /// Tells one watch, from the event loop, that it failed.
    void deliverFailed(Watch* watch, const Error& error);

private:
    friend class Watch;

    void add(Watch* watch);
    void remove(Watch* watch);
    QHash<QString, QVector<Watch*>>& watchesOf(Watch::Scope scope);

    QHash<QString, QVector<Watch*>> m_nodeWatches; ///< by path
    QHash<QString, QVector<Watch*>> m_treeWatches; ///< by path
};

} // namespace tulo

Q_DECLARE_METATYPE(tulo::Event)
Q_DECLARE_METATYPE(tulo::Settings::State)
