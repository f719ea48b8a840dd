// Two threads that have something done on the main thread, and count it in a variable that nothing
// guards. ThreadSanitizer has to say so: it shows that the set-up under which the other
// programs run without a report can report.

#include <QCoreApplication>

#include <cstdio>
#include <thread>

namespace {

int requests = 0; // NOLINT: the race

void ask(QCoreApplication* application)
{
    for (int i = 0; i < 1000; ++i) {
        ++requests;
        QMetaObject::invokeMethod(
            application, [] {}, Qt::BlockingQueuedConnection);
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    std::thread first(ask, &application);
    std::thread second(ask, &application);
    std::thread end([&] {
        first.join();
        second.join();
        QMetaObject::invokeMethod(&application, &QCoreApplication::quit, Qt::QueuedConnection);
    });
    QCoreApplication::exec();
    end.join();
    std::printf("%d requests\n", requests);
    return 0;
}
