// random_client BUS SEED: a program with twenty settings that it changes at random until it reads a
// line. Prints "answered 50" and so on for the changes that were answered. After the line "stop" it
// changes nothing more and prints "stopped"; after "report" it prints its settings with their
// values, as their changed() told them, and ends.
//
// Exit code 1 when changed() came without another value, or did not come with one.

#include <tulo/remotesettings.h>
#include <tulo/setting.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

using namespace tulo;

namespace {

constexpr int settingCount = 20;
constexpr int changeIntervalMs = 1;
constexpr int changesOfLine = 50;

/// A setting and what was announced of it.
struct Followed
{
    std::unique_ptr<AnySetting> setting;
    QVariant announced;
    bool isSettling = false; ///< setSoon() is not done
};

class RandomClient : public QObject
{
public:
    RandomClient(const QString& bus, unsigned seed)
        : m_random(seed)
        , m_settings(bus)
        , m_followed(settingCount)
        , m_input(STDIN_FILENO, QSocketNotifier::Read)
    {
        for (int i = 0; i < settingCount; ++i) {
            Followed& followed = m_followed[std::size_t(i)];
            followed.setting = std::make_unique<AnySetting>(
                &m_settings, QStringLiteral("/settings/random/s%1").arg(i));
            connect(followed.setting.get(), &AnySetting::changed, this, [&followed] {
                const QVariant& value = followed.setting->value();
                if (value == followed.announced)
                    fail("changed without a difference");
                followed.announced = value;
            });
            connect(followed.setting.get(), &AnySetting::settled, this, [this, &followed] {
                followed.isSettling = false;
                printWhenStopped();
            });
        }
        connect(&m_input, &QSocketNotifier::activated, this, &RandomClient::readLine);
        connect(&m_timer, &QTimer::timeout, this, &RandomClient::changeOne);
        m_timer.start(changeIntervalMs);
    }

private:
    [[noreturn]] static void fail(const char* what)
    {
        std::fprintf(stderr, "random_client: %s\n", what);
        std::exit(1);
    }

    static void print(const QString& line)
    {
        std::puts(line.toUtf8().constData());
        std::fflush(stdout);
    }

    void changeOne()
    {
        Followed& followed = m_followed[m_random() % settingCount];
        const auto value = qlonglong(m_random() % 1000);
        if (m_random() % 4 == 0) {
            followed.isSettling = true;
            followed.setting->setSoon(value);
            return;
        }
        ++m_underWay;
        followed.setting->set(value).then(this, [this](const Reply<Change>& reply) {
            --m_underWay;
            if (!reply.error() && ++m_answered % changesOfLine == 0)
                print(QStringLiteral("answered %1").arg(m_answered));
            printWhenStopped();
        });
    }

    void printWhenStopped() const
    {
        const bool isSettled =
            std::none_of(m_followed.cbegin(), m_followed.cend(),
                         [](const Followed& followed) { return followed.isSettling; });
        if (m_isStopped && isSettled && m_underWay == 0)
            print(QStringLiteral("stopped"));
    }

    void readLine()
    {
        std::array<char, 64> bytes {};
        const ssize_t size = ::read(STDIN_FILENO, bytes.data(), bytes.size());
        const std::string line(bytes.data(), std::size_t(size > 0 ? size : 0));
        if (line == "stop\n") {
            m_timer.stop();
            m_isStopped = true;
            printWhenStopped();
            return;
        }
        if (line != "report\n")
            std::exit(2);
        // Everything that was announced before this answer has arrived.
        if (!m_settings.status().wait())
            fail("the service does not answer");
        for (const Followed& followed : m_followed) {
            if (followed.setting->value() != followed.announced)
                fail("changed was missing");
            print(followed.setting->path() + QLatin1Char('=') + followed.announced.toString());
        }
        QCoreApplication::exit(0);
    }

    std::mt19937 m_random;
    RemoteSettings m_settings;
    std::vector<Followed> m_followed;
    QSocketNotifier m_input;
    QTimer m_timer;
    int m_underWay = 0;
    int m_answered = 0;
    bool m_isStopped = false;
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    if (argc != 3)
        return 2;
    const RandomClient client(QString::fromUtf8(argv[1]), unsigned(std::stoul(argv[2])));
    return QCoreApplication::exec();
}
