// volume [VALUE]: prints the volume of a device whenever it changes; with a value, sets it first.

#include <tulo/remotesettings.h>
#include <tulo/setting.h>

#include <QCoreApplication>
#include <QString>

#include <cstdio>

namespace {

// What the settings made of a change.
void report(const tulo::Reply<tulo::Change>& reply)
{
    if (reply.error())
        std::fprintf(stderr, "not changed: %s\n", qPrintable(reply.error().message));
    else if (reply.value().isAdjusted)
        std::fprintf(stderr, "adjusted: %s\n", qPrintable(reply.value().reason));
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    bool isNumber = argc < 2;
    const qint64 wanted = isNumber ? 0 : QString::fromLocal8Bit(argv[1]).toLongLong(&isNumber);
    if (!isNumber) {
        std::fprintf(stderr, "'%s' is not a whole number\n", argv[1]);
        return 2;
    }

    tulo::RemoteSettings settings;
    // 35 until the settings have answered, and if they never do.
    tulo::Setting<qint64> volume(&settings, QStringLiteral("/settings/audio/volume"), 35);

    const auto show = [&volume] {
        std::printf("volume %lld\n", volume.value());
        std::fflush(stdout);
    };
    show();
    QObject::connect(&volume, &tulo::AnySetting::changed, show);
    QObject::connect(&volume, &tulo::AnySetting::errorChanged, [&volume] {
        if (volume.error())
            std::fprintf(stderr, "%s\n", qPrintable(volume.errorMessage()));
    });
    if (argc > 1)
        volume.set(wanted).then(&volume, report);
    return QCoreApplication::exec();
}
