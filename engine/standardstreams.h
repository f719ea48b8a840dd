#pragma once

namespace tulo {

/// Opens /dev/null for each standard stream that is closed: a file opened in its place would get
/// what is meant for that. Before anything else is opened.
void openStandardStreams();

} // namespace tulo
