// bench_client_subject watch SETTINGS: watches so many settings of the service on the session bus,
// prints a line when all of them are ready, and ends with its standard input.
//
// bench_client_subject change PATH: for each line of standard input, a number, changes the setting
// to it and prints the time of the steady clock, in nanoseconds, at which it did so.

#include "store.h"

#include <tulo/remotesettings.h>
#include <tulo/setting.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <unistd.h>

using namespace tulo;

namespace {

void answer(long long number)
{
    std::printf("%lld\n", number);
    std::fflush(stdout);
}

int watch(int count)
{
    Shape shape;
    shape.settings = count;
    RemoteSettings settings(QStringLiteral("session"));
    std::vector<std::unique_ptr<Setting<qint64>>> all;
    for (int i = 0; i < count; ++i) {
        const std::string path = "/settings/" + shape.directory(i) + "/" + shape.name(i);
        all.push_back(
            std::make_unique<Setting<qint64>>(&settings, QString::fromStdString(path), -1));
    }
    // Without connections, which would be the program's own memory.
    for (const auto& setting : all) {
        while (!setting->isReady())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    answer(count);
    const QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });
    return QCoreApplication::exec();
}

int change(const QString& path)
{
    RemoteSettings settings(QStringLiteral("session"));
    Setting<qint64> setting(&settings, path, -1);
    QObject::connect(&setting, &AnySetting::readyChanged, &setting, [] { answer(0); });
    const QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        long long number = 0;
        if (std::scanf("%lld", &number) != 1) {
            QCoreApplication::quit();
            return;
        }
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        (void)setting.set(number);
        answer(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    });
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    if (argc == 3 && std::strcmp(argv[1], "watch") == 0)
        return watch(std::atoi(argv[2]));
    if (argc == 3 && std::strcmp(argv[1], "change") == 0)
        return change(QString::fromLocal8Bit(argv[2]));
    std::fprintf(stderr, "usage: bench_client_subject watch SETTINGS | change PATH\n");
    return 2;
}
