#pragma once

namespace tulo {

/// The hidden command "complete -- WORD...", which the completion of bash, zsh and fish calls with
/// the words that were typed so far: prints "WORD<TAB>DESCRIPTION" lines, ":files" or
/// ":directories" where the shell shall complete the name of a file. bash, which splits words at
/// more characters, calls it as "complete --bash LINE REPLACED" and gets the words as they are
/// typed. Ends with 0 whatever happens, and prints nothing but that.
///
/// Ends the process when it takes too long. Writes nothing, takes no lock and starts no service.
int runComplete(int count, char** words);

} // namespace tulo
