#pragma once

#include <QtGlobal>

// What the library offers to programs; everything else in it is hidden.
#ifdef TULO_SETTINGS_BUILD
#define TULO_SETTINGS_EXPORT Q_DECL_EXPORT
#else
#define TULO_SETTINGS_EXPORT Q_DECL_IMPORT
#endif
