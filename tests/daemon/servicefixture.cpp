#include "tests/daemon/servicefixture.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QString serviceName = QStringLiteral("org.tulo.ConfigurationManager1");
const QString objectPath = QStringLiteral("/org/tulo/ConfigurationManager1");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

QString uniqueName()
{
    static std::atomic<int> count { 0 };
    return QStringLiteral("client%1").arg(++count);
}

QString shownArgument(const QDBusArgument& argument)
{
    QStringList entries;
    switch (argument.currentType()) {
    case QDBusArgument::ArrayType: {
        const QString signature = argument.currentSignature();
        argument.beginArray();
        while (!argument.atEnd())
            entries.append(shownArgument(argument));
        argument.endArray();
        return QStringLiteral("%1 [%2]").arg(signature, entries.join(QStringLiteral(", ")));
    }
    case QDBusArgument::StructureType:
        argument.beginStructure();
        while (!argument.atEnd())
            entries.append(shownArgument(argument));
        argument.endStructure();
        return QStringLiteral("(%1)").arg(entries.join(QStringLiteral(", ")));
    case QDBusArgument::MapType:
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = argument.asVariant().toString();
            const QString value = shownArgument(argument);
            argument.endMapEntry();
            entries.append(QStringLiteral("%1: %2").arg(
                key, key == QLatin1String("timestamp") ? QStringLiteral("*") : value));
        }
        argument.endMap();
        return QStringLiteral("{%1}").arg(entries.join(QStringLiteral(", ")));
    default:
        return shown(argument.asVariant());
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Bus and service.
// ---------------------------------------------------------------------------------------------

QByteArray PrivateBus::openPolicy()
{
    return R"(<policy context="default">
  <allow send_destination="*" eavesdrop="true"/>
  <allow eavesdrop="true"/>
  <allow own="*"/>
</policy>
)";
}

PrivateBus::PrivateBus(const QByteArray& policy)
{
    // As chmod 755: other users of the bus have to find its socket.
    QFile::setPermissions(m_directory.path(), QFile::Permissions(0x7755));
    QFile file(m_directory.filePath(QStringLiteral("bus.conf")));
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write the bus configuration");
    file.write("<busconfig><listen>unix:path=" + QFile::encodeName(m_directory.path())
               + "/bus</listen><auth>EXTERNAL</auth>\n" + policy + "</busconfig>\n");
    file.close();
    startDaemon();
}

// Ends with the test program, however that ends. Nobody reads what it complains about, and it would
// stand still once a pipe is full of that.
void PrivateBus::startDaemon()
{
    m_daemon = std::make_unique<ChildProcess>(
        QStringLiteral("setpriv"),
        QStringList {
            QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("sh"),
            QStringLiteral("-c"), QStringLiteral("exec dbus-daemon \"$@\" 2>/dev/null"),
            QStringLiteral("sh"), QStringLiteral("--nofork"), QStringLiteral("--print-address"),
            QStringLiteral("--config-file=") + m_directory.filePath(QStringLiteral("bus.conf")) });
    if (!m_daemon->start() || !m_daemon->waitForOutput("\n"))
        qFatal("no bus");
}

QString PrivateBus::address() const
{
    return QStringLiteral("unix:path=") + m_directory.filePath(QStringLiteral("bus"));
}

void PrivateBus::kill()
{
    m_daemon->sendSignal(SIGKILL);
    m_daemon->finish();
}

void PrivateBus::startAgain()
{
    QFile::remove(m_directory.filePath(QStringLiteral("bus")));
    startDaemon();
}

void PrivateBus::stop() const
{
    m_daemon->sendSignal(SIGSTOP);
}

void PrivateBus::goOn() const
{
    m_daemon->sendSignal(SIGCONT);
}

namespace {

QStringList serviceWords(const CommandLine& trees, const QString& bus, const QStringList& options,
                         const QStringList& program)
{
    return program + QStringList { QStringLiteral(TULO_SETTINGSD_PROGRAM) }
    + trees.arguments({ QStringLiteral("--bus"), bus }) + options;
}

// A socket as a service manager has it. In no directory, so that a service of any user reaches it.
int bindManager(const QByteArray& name)
{
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // Behind a zero, which the variable has as "@".
    std::memcpy(address.sun_path + 1, name.constData(), size_t(name.size()));
    const auto size = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size()));
    if (manager < 0 || ::bind(manager, reinterpret_cast<const sockaddr*>(&address), size) != 0)
        qFatal("no socket for a service manager");
    return manager;
}

QByteArray managerName(const ServiceProcess* service)
{
    return "tulo-tests-" + QByteArray::number(qlonglong(::getpid())) + '-'
        + QByteArray::number(qulonglong(reinterpret_cast<quintptr>(service)));
}

} // namespace

ServiceProcess::ServiceProcess(const CommandLine& trees, const QString& bus,
                               const QStringList& options, const QStringList& program)
    : ChildProcess(serviceWords(trees, bus, options, program).first(),
                   serviceWords(trees, bus, options, program).mid(1))
    , m_manager(bindManager(managerName(this)))
{
    setVariable(QStringLiteral("NOTIFY_SOCKET"),
                QLatin1Char('@') + QString::fromLatin1(managerName(this)));
}

ServiceProcess::~ServiceProcess()
{
    ::close(m_manager);
}

void ServiceProcess::replaceSync(const QByteArray& script)
{
    setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
    setVariable(QStringLiteral("TULO_TEST_SYNC"), QString::fromUtf8(script));
}

bool ServiceProcess::serve()
{
    return start() && waitForNotice() == "READY=1";
}

QByteArray ServiceProcess::waitForNotice()
{
    const QDeadlineTimer deadline(waitMs);
    pollfd notice { m_manager, POLLIN, 0 };
    bool isOver = false;
    while (!isOver) {
        // Looked at first, as the notice may be the last thing that it did.
        isOver = hasEnded() || deadline.hasExpired();
        if (::poll(&notice, 1, 50) == 1) {
            char text[256];
            const ssize_t size = ::recv(m_manager, text, sizeof text, 0);
            return QByteArray(text, int(qMax<ssize_t>(size, 0)));
        }
    }
    return QByteArray();
}

ChildResult ServiceProcess::end(int signal)
{
    sendSignal(signal);
    return finish();
}

QByteArray ServiceProcess::complaints(const ChildResult& result)
{
    QByteArray lines;
    for (const QByteArray& line : result.standardError.split('\n')) {
        if (!line.isEmpty() && !line.startsWith("INFO  tulo-settingsd: serving '"))
            lines += line + '\n';
    }
    return lines;
}

ChildResult install(const QString& root, const QString& prefix)
{
    ChildResult all;
    for (const char* component :
         { "framework", "worker", "client", "command", "service", "development" }) {
        ChildProcess cmake(QStringLiteral("cmake"),
                           { QStringLiteral("--install"), QStringLiteral(TULO_BUILD_DIR),
                             QStringLiteral("--prefix"), prefix, QStringLiteral("--component"),
                             QString::fromLatin1(component) });
        cmake.setVariable(QStringLiteral("DESTDIR"), root);
        if (!cmake.start())
            qFatal("cannot start cmake");
        const ChildResult result = cmake.finish();
        all.exitCode = result.exitCode;
        all.standardOutput += result.standardOutput;
        all.standardError += result.standardError;
        if (result.exitCode != 0)
            break;
    }
    return all;
}

namespace {

int openPipe(const QString& name)
{
    const QByteArray fileName = QFile::encodeName(name);
    // For both directions, so that neither side waits for the other to open it.
    const int descriptor = ::mkfifo(fileName.constData(), 0600) == 0
        ? ::open(fileName.constData(), O_RDWR | O_CLOEXEC)
        : -1;
    if (descriptor < 0)
        qFatal("cannot make a pipe");
    return descriptor;
}

} // namespace

SyncGate::SyncGate()
    : m_arrivals(openPipe(m_directory.filePath(QStringLiteral("arrivals"))))
    , m_gate(openPipe(m_directory.filePath(QStringLiteral("gate"))))
{
}

SyncGate::~SyncGate()
{
    ::close(m_arrivals);
    ::close(m_gate);
}

QByteArray SyncGate::script() const
{
    const QByteArray directory = QFile::encodeName(m_directory.path());
    return "echo >'" + directory + "/arrivals'; read -r line <'" + directory + "/gate'";
}

bool SyncGate::waitForFlush() const
{
    pollfd arrivals { m_arrivals, POLLIN, 0 };
    char line = 0;
    return ::poll(&arrivals, 1, ChildProcess::waitMs) == 1 && ::read(m_arrivals, &line, 1) == 1;
}

void SyncGate::letOneThrough() const
{
    if (::write(m_gate, "\n", 1) != 1)
        qFatal("cannot open the gate");
}

// ---------------------------------------------------------------------------------------------
// Clients.
// ---------------------------------------------------------------------------------------------

BusClient::BusClient(const QString& bus)
    : m_connection(QDBusConnection::connectToBus(bus, uniqueName()))
{
    if (!m_connection.isConnected())
        qFatal("no connection to the bus: %s", qPrintable(m_connection.lastError().message()));
}

namespace {

/// Connects as another user, and in the group of that number: the bus asks the system who is at the
/// other end.
class ConnectAs
{
public:
    explicit ConnectAs(uid_t user)
    {
        if (::setegid(user) != 0 || ::seteuid(user) != 0)
            qFatal("cannot become another user");
    }
    ~ConnectAs()
    {
        if (::seteuid(0) != 0 || ::setegid(0) != 0)
            qFatal("cannot become root again");
    }
    Q_DISABLE_COPY(ConnectAs)
};

} // namespace

std::unique_ptr<BusClient> clientOf(uid_t user, const QString& bus)
{
    if (user == 0)
        return std::make_unique<BusClient>(bus);
    const ConnectAs connecting(user);
    return std::make_unique<BusClient>(bus);
}

BusClient::~BusClient()
{
    QDBusConnection::disconnectFromBus(m_connection.name());
}

namespace {

struct Change
{
    const char* method;
    int arguments; ///< without options
};

// The methods that take options last and answer with an outcome last.
constexpr Change changes[] {
    { "SetValue", 2 }, { "SetRoles", 2 }, { "Apply", 3 }, { "SetMany", 1 }, { "Reset", 1 }
};

const Change* changeNamed(const QString& method)
{
    const auto* const change =
        std::find_if(std::begin(changes), std::end(changes),
                     [&method](const Change& one) { return method == QLatin1String(one.method); });
    return change == std::end(changes) ? nullptr : change;
}

QString interfaceOf(const QString& method)
{
    if (changeNamed(method) != nullptr || method == QLatin1String("Flush"))
        return serviceName + QLatin1String(".Change");
    if (method == QLatin1String("DropCache") || method == QLatin1String("GetUnsaved")
        || method == QLatin1String("Statistics"))
        return serviceName + QLatin1String(".Admin");
    return serviceName;
}

} // namespace

QDBusMessage BusClient::message(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(serviceName, objectPath, interfaceOf(method), method);
    const Change* const change = changeNamed(method);
    const bool lacksOptions = change != nullptr && arguments.size() == change->arguments;
    message.setArguments(lacksOptions ? arguments + QVariantList { QVariantMap() } : arguments);
    return message;
}

QString BusClient::call(const char* method, const QVariantList& arguments) const
{
    QString answer = shown(m_connection.call(message(QString::fromLatin1(method), arguments),
                                             QDBus::Block, ChildProcess::waitMs));
    const QString noOutcome = QStringLiteral(" {}");
    if (changeNamed(QString::fromLatin1(method)) != nullptr && answer.endsWith(noOutcome))
        answer.chop(noOutcome.size());
    return answer;
}

QString BusClient::errorOf(const QDBusMessage& reply)
{
    if (reply.type() == QDBusMessage::ReplyMessage)
        return QString();
    QString name = reply.errorName();
    name.remove(serviceName + QLatin1String(".Error."));
    return name + QLatin1String(": ") + reply.errorMessage();
}

QString BusClient::property(const char* name) const
{
    QDBusMessage get = QDBusMessage::createMethodCall(serviceName, objectPath, propertiesInterface,
                                                      QStringLiteral("Get"));
    get << serviceName << QString::fromLatin1(name);
    return shown(m_connection.call(get, QDBus::Block, ChildProcess::waitMs));
}

QString BusClient::value(const QString& path) const
{
    const QDBusMessage reply = m_connection.call(
        message(QStringLiteral("GetData"), { path, QStringList { QStringLiteral("value") } }),
        QDBus::Block, ChildProcess::waitMs);
    const QString error = errorOf(reply);
    if (!error.isEmpty())
        return error;
    return ::shown(
        qdbus_cast<QVariantMap>(reply.arguments().value(0)).value(QStringLiteral("value")));
}

QString BusClient::shown(const QDBusMessage& message)
{
    if (message.type() == QDBusMessage::ErrorMessage
        || message.type() == QDBusMessage::InvalidMessage)
        return errorOf(message);
    QStringList arguments;
    const QVariantList all = message.arguments();
    for (const QVariant& argument : all)
        arguments.append(::shown(argument));
    return arguments.join(QLatin1Char(' '));
}

QVariant variantOf(const QVariant& value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

QString shown(const QVariant& value)
{
    const auto text = [&value](const char* type) {
        return QLatin1String(type) + QLatin1Char(' ') + value.toString();
    };
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return shown(value.value<QDBusVariant>().variant());
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return shownArgument(value.value<QDBusArgument>());
    if (value.userType() == qMetaTypeId<QDBusObjectPath>())
        return QLatin1String("o ") + value.value<QDBusObjectPath>().path();
    switch (value.userType()) {
    case QMetaType::Bool:
        return text("b");
    case QMetaType::UChar:
        return QStringLiteral("y %1").arg(value.toUInt());
    case QMetaType::Int:
        return text("i");
    case QMetaType::UInt:
        return text("u");
    case QMetaType::LongLong:
        return text("x");
    case QMetaType::ULongLong:
        return text("t");
    case QMetaType::Double:
        return text("d");
    case QMetaType::QString:
        return QStringLiteral("s \"%1\"").arg(value.toString());
    case QMetaType::QStringList:
        return QStringLiteral("as [%1]").arg(value.toStringList().join(QStringLiteral(", ")));
    case QMetaType::QVariantList: {
        QStringList entries;
        const QVariantList list = value.toList();
        for (const QVariant& entry : list)
            entries.append(shown(entry));
        return QStringLiteral("av [%1]").arg(entries.join(QStringLiteral(", ")));
    }
    case QMetaType::QVariantMap: {
        QStringList entries;
        const QVariantMap map = value.toMap();
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
            entries.append(QStringLiteral("%1: %2").arg(
                entry.key(),
                entry.key() == QLatin1String("timestamp") ? QStringLiteral("*") : shown(*entry)));
        }
        return QStringLiteral("{%1}").arg(entries.join(QStringLiteral(", ")));
    }
    default:
        return QLatin1String("? ") + QLatin1String(value.typeName());
    }
}

// ---------------------------------------------------------------------------------------------
// Signals.
// ---------------------------------------------------------------------------------------------

SignalRecorder::SignalRecorder(const QDBusConnection& connection, const QString& path)
    : m_connection(connection)
{
    const QStringList match = path.isEmpty() ? QStringList() : QStringList { path };
    const auto listen = [this, &match](const QString& interface, const QString& name) {
        if (!m_connection.connect(serviceName, objectPath, interface, name, match, QString(), this,
                                  SLOT(on_bus_signal(QDBusMessage))))
            qFatal("cannot listen to %s", qPrintable(name));
    };
    listen(serviceName, QStringLiteral("ValueChanged"));
    listen(serviceName, QStringLiteral("DataChanged"));
    listen(serviceName, QStringLiteral("RowsChanged"));
    listen(propertiesInterface, QStringLiteral("PropertiesChanged"));
    // Answered after the match rules, which are on their way.
    m_connection.call(BusClient::message(QStringLiteral("GetData"),
                                         { QStringLiteral("/settings"), QStringList() }));
}

QStringList SignalRecorder::received()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    return m_received;
}

bool SignalRecorder::waitFor(const QString& signal)
{
    QDeadlineTimer deadline(ChildProcess::waitMs);
    QTimer wake;
    wake.setSingleShot(true);
    wake.start(ChildProcess::waitMs);
    while (!m_received.contains(signal) && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (!m_received.contains(signal))
        qWarning("received only: %s", qPrintable(m_received.join(QStringLiteral("\n"))));
    return m_received.contains(signal);
}

void SignalRecorder::on_bus_signal(const QDBusMessage& message)
{
    QStringList words { message.member() };
    const QVariantList arguments = message.arguments();
    for (const QVariant& argument : arguments) {
        // Paths, commands and interface names by themselves.
        words.append(argument.userType() == QMetaType::QString ? argument.toString()
                                                               : shown(argument));
    }
    m_received.append(words.join(QLatin1Char(' ')));
}
