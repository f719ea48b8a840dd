#pragma once

#include "output.h"
#include "session.h"

namespace tulo {

/// A range of a directory's rows, gathered from as many requests as it takes.
struct Listing
{
    RowPage page; ///< what one request for all of it would have answered, but for rows left out
    QVector<Failure> leftOut; ///< one for each row that could not be answered
    Failure failure; ///< the listing could not be made at all
};

/// Fetches the rows with the indexes `first` to `last` (inclusive) in pages, so that no single
/// request keeps the worker busy for long. Begins again when the rows change between two pages.
/// Leaves out the rows that cannot be served, and says which.
Listing listRows(Session& session, const QString& path, int first, int last,
                 const QStringList& roles, Progress& progress);

} // namespace tulo
