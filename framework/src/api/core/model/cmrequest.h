#pragma once

#include "api/core/model/cmpath.h"
#include "api/core/model/cmreply.h"
#include "api/core/tuloroles.h"

#include <QExplicitlySharedDataPointer>
#include <QMetaType>
#include <QSharedData>
#include <QStringList>
#include <QVariant>

/// What a client asks of a worker. A handle on request data that never changes: copies share
/// it, and so they share the reply. What the accessors return by reference lives as long as the
/// data does, to its last handle; a temporary handle, which may be that one, gives a value. On a
/// handle without data they assert "d()".
class CMRequest
{
public:
    enum class Kind { Ping, GetData, GetRows, MatchRow, SetData };

    CMRequest() = default;

    Kind kind() const;
    const CMPath& path() const&;
    CMPath path() const&& { return path(); }
    /// The reply whatever it carries; the same one that the request's own reply() gives.
    const CMVoidReply& voidReply() const&;
    CMVoidReply voidReply() const&& { return voidReply(); }

protected:
    struct Data : QSharedData
    {
        Data(Kind requestKind, const CMPath& requestPath);
        virtual ~Data() = default;
        virtual const CMVoidReply& voidReply() const = 0;

        const Kind kind;
        const CMPath path;
    };

    explicit CMRequest(Data* data);

    const Data* d() const;

private:
    QExplicitlySharedDataPointer<Data> m_data;
};

/// Asks for the values of some roles of a node.
class CMGetDataRequest : public CMRequest
{
public:
    using Reply = CMReply<QList<QVariant>>;

    CMGetDataRequest() = default;
    CMGetDataRequest(const CMPath& path, const QStringList& roles, const Reply& reply);
    /// From the generic handle of a request of this kind.
    explicit CMGetDataRequest(const CMRequest& request);

    /// Role names, in the client's order.
    const QStringList& roles() const&;
    QStringList roles() const&& { return roles(); }
    /// Finished with one value a role.
    const Reply& reply() const&;
    Reply reply() const&& { return reply(); }

private:
    struct GetData;
    const GetData* data() const;
};

/// Asks for some roles of a range of a directory's rows.
class CMGetRowsRequest : public CMRequest
{
public:
    using Reply = CMReply<TuloRowsRoles>;

    CMGetRowsRequest() = default;
    CMGetRowsRequest(const CMPath& path, qint32 firstRow, qint32 lastRow, const QStringList& roles,
                     const Reply& reply);
    explicit CMGetRowsRequest(const CMRequest& request);

    qint32 firstRow() const;
    qint32 lastRow() const; ///< inclusive
    const QStringList& roles() const&;
    QStringList roles() const&& { return roles(); }
    const Reply& reply() const&;
    Reply reply() const&& { return reply(); }

private:
    struct GetRows;
    const GetRows* data() const;
};

/// Asks which row of a directory holds a value. No worker of this tree answers it; it is here
/// because the worker base has the operation.
class CMMatchRowRequest : public CMRequest
{
public:
    using Reply = CMReply<QVariant>;

    CMMatchRowRequest() = default;
    CMMatchRowRequest(const CMPath& path, const QString& role, const QVariant& value,
                      const Reply& reply);
    explicit CMMatchRowRequest(const CMRequest& request);

    const QString& role() const&;
    QString role() const&& { return role(); }
    const QVariant& value() const&;
    QVariant value() const&& { return value(); }
    const Reply& reply() const&;
    Reply reply() const&& { return reply(); }

private:
    struct MatchRow;
    const MatchRow* data() const;
};

/// Sets one role of a node, or activates an action. A ping has the same form.
class CMSetDataRequest : public CMRequest
{
public:
    using Reply = CMReply<QVariant>;

    CMSetDataRequest() = default;
    CMSetDataRequest(const CMPath& path, const QString& role, const QVariant& value,
                     const Reply& reply);
    explicit CMSetDataRequest(const CMRequest& request);
    static CMSetDataRequest ping(const CMPath& path, const Reply& reply);

    const QString& role() const&;
    QString role() const&& { return role(); }
    /// A hash for the value, roles and operation roles.
    const QVariant& value() const&;
    QVariant value() const&& { return value(); }
    const Reply& reply() const&;
    Reply reply() const&& { return reply(); }

private:
    struct SetData;
    explicit CMSetDataRequest(SetData* data);
    const SetData* data() const;
};

Q_DECLARE_METATYPE(CMSetDataRequest)
