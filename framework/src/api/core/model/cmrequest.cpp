#include "api/core/model/cmrequest.h"

CMRequest::Data::Data(Kind requestKind, const CMPath& requestPath)
    : kind(requestKind)
    , path(requestPath)
{
}

struct CMGetDataRequest::GetData : CMRequest::Data
{
    GetData(const CMPath& requestPath, const QStringList& requestRoles, const Reply& requestReply)
        : Data(Kind::GetData, requestPath)
        , roles(requestRoles)
        , reply(requestReply)
    {
    }
    const CMVoidReply& voidReply() const override { return reply; }

    const QStringList roles;
    const Reply reply;
};

struct CMGetRowsRequest::GetRows : CMRequest::Data
{
    GetRows(const CMPath& requestPath, qint32 first, qint32 last, const QStringList& requestRoles,
            const Reply& requestReply)
        : Data(Kind::GetRows, requestPath)
        , firstRow(first)
        , lastRow(last)
        , roles(requestRoles)
        , reply(requestReply)
    {
    }
    const CMVoidReply& voidReply() const override { return reply; }

    const qint32 firstRow;
    const qint32 lastRow;
    const QStringList roles;
    const Reply reply;
};

struct CMMatchRowRequest::MatchRow : CMRequest::Data
{
    MatchRow(const CMPath& requestPath, const QString& requestRole, const QVariant& requestValue,
             const Reply& requestReply)
        : Data(Kind::MatchRow, requestPath)
        , role(requestRole)
        , value(requestValue)
        , reply(requestReply)
    {
    }
    const CMVoidReply& voidReply() const override { return reply; }

    const QString role;
    const QVariant value;
    const Reply reply;
};

struct CMSetDataRequest::SetData : CMRequest::Data
{
    SetData(Kind requestKind, const CMPath& requestPath, const QString& requestRole,
            const QVariant& requestValue, const Reply& requestReply)
        : Data(requestKind, requestPath)
        , role(requestRole)
        , value(requestValue)
        , reply(requestReply)
    {
    }
    const CMVoidReply& voidReply() const override { return reply; }

    const QString role;
    const QVariant value;
    const Reply reply;
};

CMRequest::CMRequest(Data* data)
    : m_data(data)
{
}

const CMRequest::Data* CMRequest::d() const
{
    return m_data.constData();
}

CMRequest::Kind CMRequest::kind() const
{
    TULO_ASSERT(d());
    return d()->kind;
}

const CMPath& CMRequest::path() const&
{
    TULO_ASSERT(d());
    return d()->path;
}

const CMVoidReply& CMRequest::voidReply() const&
{
    TULO_ASSERT(d());
    return d()->voidReply();
}

CMGetDataRequest::CMGetDataRequest(const CMPath& path, const QStringList& roles, const Reply& reply)
    : CMRequest(new GetData(path, roles, reply))
{
}

CMGetDataRequest::CMGetDataRequest(const CMRequest& request)
    : CMRequest(request)
{
    TULO_ASSERT(kind() == Kind::GetData);
}

const CMGetDataRequest::GetData* CMGetDataRequest::data() const
{
    TULO_ASSERT(d());
    return static_cast<const GetData*>(d());
}

const QStringList& CMGetDataRequest::roles() const&
{
    return data()->roles;
}

const CMGetDataRequest::Reply& CMGetDataRequest::reply() const&
{
    return data()->reply;
}

CMGetRowsRequest::CMGetRowsRequest(const CMPath& path, qint32 firstRow, qint32 lastRow,
                                   const QStringList& roles, const Reply& reply)
    : CMRequest(new GetRows(path, firstRow, lastRow, roles, reply))
{
}

CMGetRowsRequest::CMGetRowsRequest(const CMRequest& request)
    : CMRequest(request)
{
    TULO_ASSERT(kind() == Kind::GetRows);
}

const CMGetRowsRequest::GetRows* CMGetRowsRequest::data() const
{
    TULO_ASSERT(d());
    return static_cast<const GetRows*>(d());
}

qint32 CMGetRowsRequest::firstRow() const
{
    return data()->firstRow;
}

qint32 CMGetRowsRequest::lastRow() const
{
    return data()->lastRow;
}

const QStringList& CMGetRowsRequest::roles() const&
{
    return data()->roles;
}

const CMGetRowsRequest::Reply& CMGetRowsRequest::reply() const&
{
    return data()->reply;
}

CMMatchRowRequest::CMMatchRowRequest(const CMPath& path, const QString& role, const QVariant& value,
                                     const Reply& reply)
    : CMRequest(new MatchRow(path, role, value, reply))
{
}

CMMatchRowRequest::CMMatchRowRequest(const CMRequest& request)
    : CMRequest(request)
{
    TULO_ASSERT(kind() == Kind::MatchRow);
}

const CMMatchRowRequest::MatchRow* CMMatchRowRequest::data() const
{
    TULO_ASSERT(d());
    return static_cast<const MatchRow*>(d());
}

const QString& CMMatchRowRequest::role() const&
{
    return data()->role;
}

const QVariant& CMMatchRowRequest::value() const&
{
    return data()->value;
}

const CMMatchRowRequest::Reply& CMMatchRowRequest::reply() const&
{
    return data()->reply;
}

CMSetDataRequest::CMSetDataRequest(const CMPath& path, const QString& role, const QVariant& value,
                                   const Reply& reply)
    : CMSetDataRequest(new SetData(Kind::SetData, path, role, value, reply))
{
}

CMSetDataRequest::CMSetDataRequest(const CMRequest& request)
    : CMRequest(request)
{
    TULO_ASSERT(kind() == Kind::SetData || kind() == Kind::Ping);
}

CMSetDataRequest::CMSetDataRequest(SetData* data)
    : CMRequest(data)
{
}

CMSetDataRequest CMSetDataRequest::ping(const CMPath& path, const Reply& reply)
{
    return CMSetDataRequest(new SetData(Kind::Ping, path, QString(), QVariant(), reply));
}

const CMSetDataRequest::SetData* CMSetDataRequest::data() const
{
    TULO_ASSERT(d());
    return static_cast<const SetData*>(d());
}

const QString& CMSetDataRequest::role() const&
{
    return data()->role;
}

const QVariant& CMSetDataRequest::value() const&
{
    return data()->value;
}

const CMSetDataRequest::Reply& CMSetDataRequest::reply() const&
{
    return data()->reply;
}
