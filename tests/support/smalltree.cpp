#include "tests/support/smalltree.h"

#include <QString>

void writeSmallTree(const TemporaryTree& tree)
{
    tree.writeDefault(QStringLiteral("/.meta"), R"({"title":"Settings","modifiable":false})");
    tree.writeDefault(QStringLiteral("/audio/.meta"), R"({"title":"Audio","modifiable":false})");
    tree.writeDefault(
        QStringLiteral("/audio/gain"),
        R"({"value":{"double":0.5},"edit":{"kind":"double","min":-1.0,"max":1.0,"step":0.25}})");
    tree.writeDefault(QStringLiteral("/audio/loudness"),
                      R"({"title":"Loudness","value":{"bool":true},"edit":{"kind":"bool"}})");
    tree.writeDefault(QStringLiteral("/audio/mode"),
                      R"({"value":{"string":"mid"},"edit":{"values":["low","mid","high"]}})");
    tree.writeDefault(QStringLiteral("/audio/sources"),
                      R"({"value":{"list":["fm","usb"]},"edit":{"kind":"list","maxLength":3}})");
    tree.writeDefault(QStringLiteral("/audio/volume"),
                      R"({"title":"Volume","value":{"int":35},"valueUnit":"%",)"
                      R"("edit":{"kind":"int","min":0,"max":100,"step":5}})");
    tree.writeDefault(QStringLiteral("/presets/.meta"),
                      R"({"title":"Preset","defaultValue":{"string":"fm:87.5"},)"
                      R"("edit":{"kind":"string","pattern":"fm:[0-9.]+"}})");
    tree.writeDefault(QStringLiteral("/presets/one"), "{}");
    tree.writeDefault(QStringLiteral("/serial"), R"({"value":{"string":"X1"},"modifiable":false})");
    tree.writeDefault(QStringLiteral("/token"), R"({"title":"Token"})");
}
