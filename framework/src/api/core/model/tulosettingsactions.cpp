#include "api/core/model/tulosettingsactions.h"

const CMPath& TuloSettingsActionsFlush()
{
    static const CMPath path(QStringLiteral("/settings/actions/flush"));
    return path;
}

const CMPath& TuloSettingsActionsDropCache()
{
    static const CMPath path(QStringLiteral("/settings/actions/dropCache"));
    return path;
}
