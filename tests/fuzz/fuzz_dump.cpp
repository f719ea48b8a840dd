// A text that is read as a dump: either something is wrong with it, in a line that it has, or what
// it says is printed as a dump that reads as the same again.

#include "fuzzinput.h"

#include "client/base/checks.h"
#include "trees/dump.h"
#include "trees/plainjson.h"

#include <QSet>

namespace {

QByteArray textOf(const tulo::Dump& dump)
{
    QByteArray text = tulo::jsonOf(tulo::headerObject(dump)) + '\n';
    for (const tulo::DumpedSetting& setting : dump.settings) {
        const QByteArray line = tulo::jsonOf(tulo::settingObject(setting));
        TULO_ASSERT(!line.isNull());
        text += line + '\n';
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    tulo::Dump dump;
    const QVector<tulo::DumpFault> faults = tulo::readDump(text, &dump);
    int lastLine = 0;
    for (const tulo::DumpFault& fault : faults) {
        TULO_ASSERT(fault.line >= lastLine && fault.line <= text.count('\n') + 1);
        TULO_ASSERT(!fault.message.isEmpty());
        lastLine = fault.line;
    }
    QSet<QString> paths;
    for (const tulo::DumpedSetting& setting : qAsConst(dump.settings)) {
        TULO_ASSERT(!tulo::checkPath(setting.path) && setting.path.startsWith(dump.path));
        TULO_ASSERT(setting.line > 0 && setting.line <= text.count('\n') + 1);
        TULO_ASSERT(!paths.contains(setting.path));
        paths.insert(setting.path);
    }
    if (!faults.isEmpty())
        return 0;

    tulo::sortSettings(&dump);
    const QByteArray printed = textOf(dump);
    tulo::Dump again;
    TULO_ASSERT(tulo::readDump(printed, &again).isEmpty());
    TULO_ASSERT(textOf(again) == printed);
    return 0;
}
