#pragma once

#include <string>

// The least that the machine lets such work cost, with plain system calls. Failures throw
// std::runtime_error.

/// Reads a whole small file: open, fstat, read, close. Returns its size.
std::size_t readFile(const char* fileName);

/// Lists a directory: readdir, and faccessat for each name. Returns how many can be read.
int listDirectory(const char* directory);

/// Replaces a file durably: temporary file, write, fsync, rename.
void replaceFile(const std::string& directory, const std::string& name, const std::string& text);
