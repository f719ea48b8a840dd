#pragma once

#include <QString>
#include <QVariantMap>

namespace tulo {

/// The values that a setting with these roles can have, in words: "a whole number from 0 to 100 in
/// steps of 5". Texts of the tree are in it as they are.
QString valuesInWords(const QVariantMap& roles);

} // namespace tulo
