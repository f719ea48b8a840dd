#pragma once

#include <QByteArray>
#include <QString>

namespace tulo {

/// What shows long output, by TULO_PAGER, else PAGER, else less. Empty for nothing: they are empty
/// or "cat".
QString pagerCommand();

/// Shows `text` with the pager `command` until it ends, and serves events meanwhile. Ctrl-C is the
/// pager's; a signal to end ends it. False when it could not be started.
[[nodiscard]] bool showInPager(const QString& command, const QByteArray& text);

} // namespace tulo
