#pragma once

#include <QtGlobal>

/// How often a test does what is random, or hits another moment each time: `usual` times, or `full`
/// times with TULO_TEST_FULL=1 in the environment, as scripts/proof has it.
inline int repeats(int usual, int full)
{
    return qEnvironmentVariableIntValue("TULO_TEST_FULL") == 1 ? full : usual;
}
