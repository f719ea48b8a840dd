#include "store.h"

#include <cstdio>

namespace {

std::string numbered(const char* name, int number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%s%05d", name, number);
    return text;
}

} // namespace

std::string Shape::directory(int setting) const
{
    return numbered("group", setting / perDirectory);
}

std::string Shape::name(int setting) const
{
    return numbered("setting", setting % perDirectory);
}
