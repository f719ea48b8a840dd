#pragma once

#include <QRandomGenerator>
#include <QtGlobal>

/// How often a test does what is random, or hits another moment each time: `usual` times, or `full`
/// times with TULO_TEST_FULL=1 in the environment, as scripts/proof has it.
inline int repeats(int usual, int full)
{
    return qEnvironmentVariableIntValue("TULO_TEST_FULL") == 1 ? full : usual;
}

/// The seed of what is random: the same one each time, so that no test fails by chance, or another
/// one each time with TULO_TEST_FULL=1.
inline quint32 randomSeed()
{
    return repeats(0, 1) == 0 ? 1 : QRandomGenerator::system()->generate();
}
