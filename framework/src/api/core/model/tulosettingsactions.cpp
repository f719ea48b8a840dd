#include "api/core/model/tulosettingsactions.h"

CMPath TuloSettingsActionsFlush()
{
    return CMPath(QStringLiteral("/settings/actions/flush"));
}

CMPath TuloSettingsActionsDropCache()
{
    return CMPath(QStringLiteral("/settings/actions/dropCache"));
}
