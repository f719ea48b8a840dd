// Two client threads of one worker, which count their requests in a variable that nothing
// guards. ThreadSanitizer has to say so: it shows that the set-up under which the other
// programs run without a report can report.

#include "engine/dispatcher.h"
#include "engine/router.h"

#include <QCoreApplication>

#include <cstdio>
#include <thread>

using namespace tulo;

namespace {

int requests = 0; // NOLINT: the race

void ask(Dispatcher* dispatcher)
{
    for (int i = 0; i < 1000; ++i) {
        ++requests;
        Dispatcher::wait(dispatcher->getData(CMPath(QStringLiteral("/nobody/is/here")), {}));
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Router router;
    Dispatcher dispatcher(&router);
    std::thread first(ask, &dispatcher);
    std::thread second(ask, &dispatcher);
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
