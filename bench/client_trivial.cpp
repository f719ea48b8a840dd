// bench_client_trivial: a program that makes one call over the session bus by Qt's D-Bus library,
// prints a line, and ends with its standard input.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QSocketNotifier>

#include <cstdio>

#include <unistd.h>

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("/"),
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("empty")));
    if (reply.type() != QDBusMessage::ReplyMessage) {
        std::fprintf(stderr, "bench_client_trivial: no answer\n");
        return 1;
    }
    const QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });
    std::puts("ready");
    std::fflush(stdout);
    return QCoreApplication::exec();
}
