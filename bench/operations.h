#pragma once

#include "store.h"

#include <functional>
#include <string>
#include <vector>

/// One kind of work, ready to be done again and again. The argument counts the calls from 0.
/// What a factory below returns has been done once already, so that only the first of many
/// first loads finds everything new.
using Operation = std::function<void(int)>;

/// Up to `count` different settings of a shape in no particular order, always the same ones.
std::vector<int> someSettings(const Shape& shape, int count);

/// Fewer settings than our value cache holds, and more than the processor's nearest cache.
constexpr int workingSet = 256;

// Our store, in the directory `store`. Settings are read in turn from the working set, or from
// 1,000 where a first load is wanted: the value cache never has the next of these.

/// One role of a setting, as the reply gives it.
Operation warmGet(const std::string& store, const Shape& shape);
/// 20 rows of 3 roles.
Operation warmRows(const std::string& store, const Shape& shape);
Operation firstLoad(const std::string& store, const Shape& shape);
/// The names of the first directory in both layers, by a new worker each time.
Operation firstListing(const std::string& store, const Shape& shape);
Operation cachedListing(const std::string& store, const Shape& shape);
/// A change of a setting of the working set, from the request to the reply.
Operation acceptChange(const std::string& store, const Shape& shape);
/// One change, safely on disk.
Operation durableChange(const std::string& store, const Shape& shape);
/// 1,000 changes of one setting, the last one safely on disk.
Operation thousandChanges(const std::string& store, const Shape& shape);
/// A value that is read for the first time by the settings of a process: with all that the service
/// does but for the bus.
Operation firstRead(const std::string& store, const Shape& shape);
/// A change that is judged by them and not made, as the worker's part of it is acceptChange().
Operation judgedChange(const std::string& store, const Shape& shape);
/// A reset of so many settings in directories of the usual size, by the settings of a process; with
/// the files that it removes, which are linked into their places before.
Operation resetSettings(const std::string& store, const Shape& shape, int count);
/// A setting that is made and reset, so that the worker is renewed.
Operation resetMade(const std::string& store, const Shape& shape);
/// What the engine notes of a change whose write fails, besides `unsaved` others like it.
Operation failedChange(int unsaved);
/// Every rule of the check on both trees of the store.
Operation checkBothTrees(const std::string& store);
/// Opening a tree that needs no migration: a look at all its files, or at the stamp of its image.
Operation migrateNothing(const std::string& store, bool isStamped);
/// A default file's text into a hash, and such a hash into a text.
Operation parseJson();
Operation serializeJson();

// The least that the machine and Qt let the same work cost.

/// QCache lookup, copy of the hash, one role.
Operation getFloor();
/// Plain reading of the two files of a setting.
Operation loadFloor(const std::string& store, const Shape& shape);
/// readdir and faccessat in both layers.
Operation listFloor(const std::string& store, const Shape& shape);
/// Filling the hash that parseJson() gives.
Operation buildHash();
