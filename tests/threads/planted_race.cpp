// Two client threads of one worker, which count their requests in a variable that nothing
// guards. ThreadSanitizer has to say so: it shows that the set-up under which the other
// programs run without a report can report.

#include "engine/client.h"
#include "engine/router.h"

#include <QCoreApplication>

#include <cstdio>
#include <thread>

using namespace tulo;

namespace {

int requests = 0; // NOLINT: the race

void ask(Client* client)
{
    for (int i = 0; i < 1000; ++i) {
        ++requests;
        Client::wait(client->getData(CMPath(QStringLiteral("/nobody/is/here")), {}));
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Router router;
    Client client(&router);
    std::thread first(ask, &client);
    std::thread second(ask, &client);
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
