#pragma once

#include "api/core/model/cmpath.h"

/// The action that writes every pending change and syncs the file systems:
/// "/settings/actions/flush".
CMPath TuloSettingsActionsFlush();

/// The action that empties the value cache: "/settings/actions/dropCache".
CMPath TuloSettingsActionsDropCache();
