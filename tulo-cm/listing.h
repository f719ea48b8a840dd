#pragma once

#include "tulo-cm/output.h"

#include <tulo/settings.h>

#include <functional>

namespace tulo {

class Progress;
class TreeReader;

/// A range of a directory's rows, gathered from as many requests as it takes.
struct Listing
{
    /// What one request for all of it would have answered, but for rows that cannot be served.
    Rows rows;
    QStringList names; ///< of all rows
    QVector<Row> leftOut; ///< the rows that cannot be served
    Error error; ///< the listing could not be made at all
};

/// Fetches the rows with the indexes `first` to `last` (inclusive) in pages, so that no single
/// request keeps the settings busy for long. Begins again when the rows change between two pages.
Listing listRows(Settings& settings, const QString& path, int first, int last,
                 const QStringList& roles, Progress& progress);

/// Prints an error for each row that was left out and returns the exit code.
int reportLeftOut(Output& output, const QString& path, const QVector<Row>& leftOut);

/// A node that walk() comes to.
struct VisitedNode
{
    QString path;
    QString name; ///< the last part of the path
    int depth; ///< 0 at the top of the walk
    bool isDirectory;
    QVariantMap roles; ///< of those asked for and the type, the ones that the node has
};

/// Visits the node `path` and everything below it, each directory before its rows. Ends early when
/// `visit` returns false. Prints the errors of what cannot be listed and returns the exit code.
/// `listed` gets each directory as soon as it was listed, before any later event.
int walk(Settings& settings, const QString& path, const QStringList& roles, Output& output,
         const std::function<bool(const VisitedNode&)>& visit,
         const std::function<void(const QString& path, const Listing&)>& listed = {});

/// Prints an error for each default file that gives no roles though it is there, and returns the
/// exit code.
int reportDefects(Output& output, const TreeReader& tree);

} // namespace tulo
