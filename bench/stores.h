#pragma once

#include "store.h"

#include <string>
#include <vector>

/// All stores of this build, ours first.
const std::vector<const StoreKind*>& storeKinds();

/// The shapes that stores are measured in, smallest first: what every store is compared on.
const std::vector<Shape>& comparedShapes();
/// Our own store only: one directory, from a few settings to very many.
const std::vector<Shape>& directoryShapes();

/// Where a store of a shape lives below the working directory `work`.
std::string storeDirectory(const std::string& work, const StoreKind& kind, const Shape& shape);
