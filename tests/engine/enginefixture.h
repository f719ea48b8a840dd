#pragma once

#include "api/core/model/cmworker.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

// What the tests of the engine share.

/// A worker that notes what it is asked, and answers every request with the request's path.
class NotingWorker : public CMWorker
{
public:
    explicit NotingWorker(const QString& prefix = QStringLiteral("/settings"))
        : CMWorker({ { QStringLiteral("prefix"), prefix } }, QStringLiteral("NotingWorker"))
    {
    }

    const QList<CMRequest>& requests() const { return m_requests; }

    void getDataRequest(const CMGetDataRequest& request) override
    {
        m_requests.append(request);
        request.reply().setValue({ request.path().text() });
    }

    void getRowsRequest(const CMGetRowsRequest& request) override
    {
        m_requests.append(request);
        request.reply().setValue(TuloRowsRoles());
    }

    void setDataRequest(const CMSetDataRequest& request) override
    {
        m_requests.append(request);
        request.reply().setValue(request.path().text());
    }

private:
    QList<CMRequest> m_requests;
};
