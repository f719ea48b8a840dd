// bench_echo: answers empty calls on the session bus, the least that a service does. Prints a
// line when it is ready and ends with its standard input.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QSocketNotifier>

#include <cstdio>

#include <unistd.h>

class Echo : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.tulo.BenchEcho")

public slots:
    void empty() { }
};

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    Echo echo;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/"), &echo, QDBusConnection::ExportAllSlots)
        || !bus.registerService(QStringLiteral("org.tulo.BenchEcho"))) {
        std::fprintf(stderr, "bench_echo: no session bus\n");
        return 1;
    }
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
    std::puts("ready");
    std::fflush(stdout);
    return QCoreApplication::exec();
}

#include "echo.moc"
