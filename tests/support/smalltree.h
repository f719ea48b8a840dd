#pragma once

#include "tests/support/temporarytree.h"

/// A small default tree with a setting of every kind.
void writeSmallTree(const TemporaryTree& tree);
