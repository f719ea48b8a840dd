#pragma once

#include "trees/rules.h"

#include "api/core/tulovalue.h"

#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

/// What is wrong in one file's content.
struct DocumentFinding
{
    RuleId rule;
    QString pointer; ///< JSON pointer of the place
    QString message; ///< one line
};

/// Whether a value names its kind and has content of that kind. Where nothing limits it, an integer
/// may be above the signed 64 bits.
bool hasKnownKind(const TuloValue& value);

/// What a default file is to its directory.
enum class DocumentUse {
    Setting,
    Directory, ///< a .meta
    Template ///< a .meta that also describes children, made by clients or with a file of {}
};

/// Whether values have a known kind, constraints can be understood, and values fit them.
[[nodiscard]] QVector<DocumentFinding> checkValues(const QVariantHash& roles);

/// The same, and everything else that can be told from the file alone.
[[nodiscard]] QVector<DocumentFinding> checkDocument(const QVariantHash& roles, DocumentUse use);

} // namespace tulo
