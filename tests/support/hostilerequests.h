#pragma once

#include "tests/support/temporarytree.h"

#include "api/core/model/cmrequest.h"

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>

// What clients may try, shared by the tests of every way in.

/// One request as a client might send it.
struct Attempt
{
    CMRequest::Kind kind = CMRequest::Kind::GetData;
    QString path;
    int firstRow = 0;
    int lastRow = 0;
    QStringList roles;
    QString role;
    QVariant value;
};

Q_DECLARE_METATYPE(Attempt)

/// Fills the trees that the rows below are about: settings, and what somebody with access to the
/// writable tree may have put there.
void makeHostileTrees(const TemporaryTree& tree);

/// Adds the columns and rows of a data-driven test: the attempt, the error "NAME: MESSAGE" that a
/// client of the guarded worker reads ("refusal"), what the bare worker makes of it ("outcome":
/// "error NAME: MESSAGE", "answer TEXT", for rows "rows TEXT", for a change "saved FILE TEXT", or
/// "abort CONDITION"), and its record, "LEVEL MESSAGE" with %W for the writable tree, if it leaves
/// one ("record").
void addHostileRequests();
