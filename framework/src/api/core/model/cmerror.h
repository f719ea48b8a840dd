#pragma once

#include "api/core/trstring.h"
#include "api/core/tulohash.h"

/// The error that a reply carries: entries name (a plain string), message and title (texts).
/// Without a name it stands for success.
class CMError : public TuloHash
{
public:
    using TuloHash::TuloHash;
    CMError() = default;
    CMError(const QString& name, const TrString& message, const TrString& title = DefaultTitle());

    static const QString& Name();
    static const QString& Message();
    static const QString& Title();
    /// The text "Error", translatable.
    static TrString DefaultTitle();

    QString name() const;
    TrString message() const;
    TrString title() const;
};
