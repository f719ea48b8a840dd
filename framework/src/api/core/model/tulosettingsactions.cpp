#include "api/core/model/tulosettingsactions.h"

CMPath TuloSettingsActionsFlush()
{
    static const CMPath path(QStringLiteral("/settings/actions/flush"));
    return path;
}

CMPath TuloSettingsActionsDropCache()
{
    static const CMPath path(QStringLiteral("/settings/actions/dropCache"));
    return path;
}
