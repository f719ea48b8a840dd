#pragma once

#include <QString>
#include <QStringList>

namespace tulo {

/// The candidate that `name` is most likely a misspelling of, empty when none is near. Upper and
/// lower case do not count.
QString nearest(const QString& name, const QStringList& candidates);
/// "; did you mean 'NAME'?", or nothing when no candidate is near.
QString suggestion(const QString& name, const QStringList& candidates);

} // namespace tulo
