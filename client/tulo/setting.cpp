#include "tulo/setting.h"

#include <QPointer>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>
#include <QVector>

#include <algorithm>
#include <utility>

namespace tulo {

bool detail::isSameValue(const QVariant& left, const QVariant& right)
{
    if (left.userType() != right.userType())
        return false;
    if (left.userType() == QMetaType::QVariantList) {
        const auto lefts = left.toList();
        const auto rights = right.toList();
        return std::equal(lefts.cbegin(), lefts.cend(), rights.cbegin(), rights.cend(),
                          isSameValue);
    }
    if (left.userType() == QMetaType::QVariantMap) {
        const auto lefts = left.toMap();
        const auto rights = right.toMap();
        return lefts.keys() == rights.keys()
            && std::equal(lefts.cbegin(), lefts.cend(), rights.cbegin(), isSameValue);
    }
    return left == right;
}

/// What an AnySetting keeps. It is the setting's watch as well, which saves three connections.
class SettingPrivate final : public Watch
{
public:
    SettingPrivate(AnySetting* setting, Settings* settings, const QString& path,
                   const QVariant& fallback)
        : Watch(settings, path, Scope::Node)
        , q(setting)
        , m_value(fallback)
    {
    }

    /// Subscribes, then reads.
    void start();
    /// Reads what is kept again.
    void readAgain();
    void take(const QVariant& value);
    void setError(const Error& error);

    QVariant detail(QLatin1String role);
    QVariant constraint(QLatin1String name);

    Reply<Change> change(const QVariant& value, const ChangeOptions& options);
    void changeSoon(const QVariant& value);
    /// The value that changeSoon() has kept is not to be sent.
    void dropNext();
    /// Sends that value, if there is one.
    void sendNext();

    AnySetting* const q;
    QVariant m_value;
    std::unique_ptr<Error> m_error; ///< of the last answer
    std::unique_ptr<Error> m_watchError; ///< the value is not kept current
    bool m_isReady = false;
    bool m_isReadQueued = false; ///< the reader has it in its list
    bool m_isUnavailable = false; ///< the reader has it in its list of those to be read when ready

protected:
    void deliver(const Event& event) override;
    void deliverMissed() override;
    void deliverFailed(const Error& error) override;

private:
    void requestDetails();
    void on_details(const Reply<QVariantMap>& reply);
    void on_changedSoon(const Reply<Change>& reply, quint32 eventCount);
    void takeStored(const Change& change, quint32 eventCount);

    QVariantMap m_details;
    bool m_hasDetails = false; ///< they were asked for
    bool m_wasValueEvent = false; ///< the last event was a value event
    quint32 m_valueEventCount = 0;
    bool m_isChanging = false; ///< a change of changeSoon() is under way
    bool m_hasNext = false;
    QVariant m_next; ///< to be sent after it
};

namespace {

Error unexpected(const Watch& setting, const QString& what)
{
    return { ErrorCode::Rejected, QStringLiteral("'%1' %2").arg(setting.path(), what),
             setting.path() };
}

// ---------------------------------------------------------------------------------------------
// Reading: the settings that a program makes in one turn of its event loop, and all those that it
// reads again after a restart of the service, are read by as few requests as possible.
// ---------------------------------------------------------------------------------------------

// A program that watches a thousand settings takes a third less memory for it than with one answer,
// and other programs have their turn between two requests.
constexpr int pathsEach = 250;

/// Reads the values of all settings of one tulo::Settings, whose child it is.
class SettingReader : public QObject
{
    Q_OBJECT

public:
    static SettingReader* of(Settings* settings);

    /// Reads with the others of this turn.
    void read(SettingPrivate* setting);
    /// Reads once requests are served again.
    void readWhenReady(SettingPrivate* setting);

private:
    using Batch = QVector<QPointer<SettingPrivate>>;

    explicit SettingReader(Settings* settings);
    void readQueued();
    void on_answer(const Batch& batch, const Reply<QVector<Node>>& reply);
    void on_stateChanged(Settings::State state);
    void take(SettingPrivate* setting, const QVariantMap& roles, const Error& error);

    Settings* const m_settings;
    Batch m_queued;
    Batch m_unavailable;
};

SettingReader::SettingReader(Settings* settings)
    : QObject(settings)
    , m_settings(settings)
{
    connect(settings, &Settings::stateChanged, this, &SettingReader::on_stateChanged);
}

SettingReader* SettingReader::of(Settings* settings)
{
    auto* const reader = settings->findChild<SettingReader*>(QString(), Qt::FindDirectChildrenOnly);
    return reader != nullptr ? reader : new SettingReader(settings);
}

void SettingReader::read(SettingPrivate* setting)
{
    if (setting->m_isReadQueued)
        return;
    setting->m_isReadQueued = true;
    if (m_queued.isEmpty())
        QMetaObject::invokeMethod(this, &SettingReader::readQueued, Qt::QueuedConnection);
    m_queued.append(setting);
}

void SettingReader::readWhenReady(SettingPrivate* setting)
{
    if (std::exchange(setting->m_isUnavailable, true))
        return;
    m_unavailable.append(setting);
}

void SettingReader::readQueued()
{
    const Batch queued = std::exchange(m_queued, {});
    for (int first = 0; first < queued.size(); first += pathsEach) {
        Batch batch;
        QStringList paths;
        for (const auto& setting : queued.mid(first, pathsEach)) {
            if (!setting)
                continue;
            setting->m_isReadQueued = false;
            batch.append(setting);
            paths.append(setting->path());
        }
        if (batch.isEmpty())
            continue;
        m_settings->getMany(paths, { QStringLiteral("value") })
            .then(this,
                  [this, batch](const Reply<QVector<Node>>& reply) { on_answer(batch, reply); });
    }
}

// Each setting tells the program, which may destroy settings and the tulo::Settings with this.
void SettingReader::on_answer(const Batch& batch, const Reply<QVector<Node>>& reply)
{
    if (reply.error().code == ErrorCode::Cancelled)
        return;
    const QPointer<SettingReader> self(this);
    for (int i = 0; i < batch.size() && self; ++i) {
        if (!batch.at(i))
            continue;
        if (reply.error() || i >= reply.value().size())
            take(batch.at(i), {}, reply.error());
        else
            take(batch.at(i), reply.value().at(i).roles, reply.value().at(i).error);
    }
}

void SettingReader::take(SettingPrivate* setting, const QVariantMap& roles, const Error& error)
{
    if (error.code == ErrorCode::Unavailable)
        readWhenReady(setting);
    const auto value = roles.constFind(QStringLiteral("value"));
    if (error || value == roles.cend()) {
        setting->setError(error ? error : unexpected(*setting, QStringLiteral("has no value")));
    } else {
        setting->take(*value);
    }
}

void SettingReader::on_stateChanged(Settings::State state)
{
    if (state != Settings::State::Ready)
        return;
    const Batch settings = std::exchange(m_unavailable, {});
    for (const auto& setting : settings) {
        if (!setting)
            continue;
        setting->m_isUnavailable = false;
        setting->readAgain();
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Values and events. A handler of the program may destroy the setting, so nothing follows the last
// signal, and between two it is looked at again.
// ---------------------------------------------------------------------------------------------

void SettingPrivate::start()
{
    begin();
    SettingReader::of(settings())->read(this);
}

void SettingPrivate::readAgain()
{
    SettingReader::of(settings())->read(this);
    if (m_hasDetails)
        requestDetails();
}

void SettingPrivate::deliver(const Event& event)
{
    const bool wasValueEvent = std::exchange(m_wasValueEvent, event.kind == Event::Kind::Value);
    if (event.kind == Event::Kind::Value) {
        ++m_valueEventCount;
        if (event.value.isValid())
            take(event.value);
        else
            SettingReader::of(settings())->read(this);
    } else if (event.kind == Event::Kind::Data && !wasValueEvent) {
        // Not the one that follows a value: other roles changed, or the value is encrypted.
        readAgain();
    }
}

void SettingPrivate::deliverMissed()
{
    m_watchError.reset();
    readAgain();
}

void SettingPrivate::deliverFailed(const Error& error)
{
    m_watchError = std::make_unique<Error>(error);
    emit q->errorChanged();
}

void SettingPrivate::take(const QVariant& value)
{
    const AnySetting::Fit fit = q->take(value);
    if (fit == AnySetting::Fit::Mismatch) {
        setError(unexpected(
            *this,
            QStringLiteral("has a value of the type %1, which this program does not expect")
                .arg(QLatin1String(value.typeName()))));
        return;
    }
    m_value = value;
    const QPointer<SettingPrivate> self(this);
    if (!std::exchange(m_isReady, true))
        emit q->readyChanged();
    if (self)
        setError({});
    if (self && fit == AnySetting::Fit::Different)
        emit q->changed();
}

void SettingPrivate::setError(const Error& error)
{
    if (error == (m_error ? *m_error : Error()))
        return;
    m_error = error ? std::make_unique<Error>(error) : nullptr;
    emit q->errorChanged();
}

// ---------------------------------------------------------------------------------------------
// Details.
// ---------------------------------------------------------------------------------------------

QVariant SettingPrivate::detail(QLatin1String role)
{
    if (!m_hasDetails && settings() != nullptr) {
        m_hasDetails = true;
        requestDetails();
    }
    return m_details.value(role);
}

QVariant SettingPrivate::constraint(QLatin1String name)
{
    return detail(QLatin1String("edit")).toMap().value(name);
}

void SettingPrivate::requestDetails()
{
    settings()
        ->get(path(),
              { QStringLiteral("defaultValue"), QStringLiteral("edit"),
                QStringLiteral("modifiable"), QStringLiteral("title"),
                QStringLiteral("description"), QStringLiteral("valueUnit") })
        .then(this, [this](const Reply<QVariantMap>& reply) { on_details(reply); });
}

void SettingPrivate::on_details(const Reply<QVariantMap>& reply)
{
    if (reply.error().code == ErrorCode::Unavailable && settings() != nullptr)
        SettingReader::of(settings())->readWhenReady(this);
    if (reply.error() || detail::isSameValue(reply.value(), m_details))
        return;
    m_details = reply.value();
    emit q->detailsChanged();
}

// ---------------------------------------------------------------------------------------------
// Changes.
// ---------------------------------------------------------------------------------------------

namespace {

// A reply finishes from the event loop.
void failLater(const Promise<Change>& promise, const QString& path)
{
    QTimer::singleShot(0, [promise, path] {
        promise.fail({ ErrorCode::Unavailable, QStringLiteral("the settings are closed"), path });
    });
}

} // namespace

Reply<Change> SettingPrivate::change(const QVariant& value, const ChangeOptions& options)
{
    if (settings() == nullptr) {
        const Promise<Change> promise;
        failLater(promise, path());
        return promise.reply();
    }
    Reply<Change> reply = settings()->set(path(), value, options);
    if (!options.isDryRun) {
        reply.then(this, [this, count = m_valueEventCount](const Reply<Change>& finished) {
            if (!finished.error())
                takeStored(finished.value(), count);
        });
    }
    return reply;
}

void SettingPrivate::changeSoon(const QVariant& value)
{
    m_next = value;
    m_hasNext = true;
    if (!m_isChanging)
        sendNext();
}

void SettingPrivate::dropNext()
{
    m_next = QVariant();
    m_hasNext = false;
}

void SettingPrivate::sendNext()
{
    const QVariant value = m_next;
    const bool hasNext = m_hasNext;
    dropNext();
    if (!hasNext || settings() == nullptr)
        return;
    m_isChanging = true;
    settings()
        ->set(path(), value)
        .then(this, [this, count = m_valueEventCount](const Reply<Change>& reply) {
            on_changedSoon(reply, count);
        });
}

void SettingPrivate::on_changedSoon(const Reply<Change>& reply, quint32 eventCount)
{
    m_isChanging = false;
    // Cancelled: the settings are being destroyed.
    if (m_hasNext && reply.error().code != ErrorCode::Cancelled) {
        sendNext();
        return;
    }
    const QPointer<SettingPrivate> self(this);
    if (reply.error())
        setError(reply.error());
    else
        takeStored(reply.value(), eventCount);
    // A handler may have asked for the next change.
    if (self && !m_isChanging)
        emit q->settled();
}

// An event says it first, but for an encrypted setting, or when the settings cannot be watched.
// What was announced since the change was sent is not older than the answer.
void SettingPrivate::takeStored(const Change& change, quint32 eventCount)
{
    const auto value = change.stored.constFind(QStringLiteral("value"));
    if (value != change.stored.cend() && m_valueEventCount == eventCount)
        take(*value);
}

// ---------------------------------------------------------------------------------------------
// AnySetting.
// ---------------------------------------------------------------------------------------------

AnySetting::AnySetting(Settings* settings, const QString& path, const QVariant& fallback,
                       QObject* parent)
    : QObject(parent)
    , d(std::make_unique<SettingPrivate>(this, settings, path, fallback))
{
    d->start();
}

AnySetting::~AnySetting()
{
    d->sendNext();
}

const QString& AnySetting::path() const
{
    return d->path();
}

const QVariant& AnySetting::value() const
{
    return d->m_value;
}

bool AnySetting::isReady() const
{
    return d->m_isReady;
}

Error AnySetting::error() const
{
    const auto& error = d->m_error ? d->m_error : d->m_watchError;
    return error ? *error : Error();
}

QString AnySetting::errorMessage() const
{
    return error().message;
}

QVariant AnySetting::defaultValue() const
{
    return d->detail(QLatin1String("defaultValue"));
}

QVariant AnySetting::minimum() const
{
    return d->constraint(QLatin1String("min"));
}

QVariant AnySetting::maximum() const
{
    return d->constraint(QLatin1String("max"));
}

QVariant AnySetting::step() const
{
    return d->constraint(QLatin1String("step"));
}

QVariantList AnySetting::values() const
{
    return d->constraint(QLatin1String("values")).toList();
}

bool AnySetting::isModifiable() const
{
    const QVariant modifiable = d->detail(QLatin1String("modifiable"));
    return !modifiable.isValid() || modifiable.toBool();
}

QString AnySetting::title() const
{
    return d->detail(QLatin1String("title")).toString();
}

QString AnySetting::description() const
{
    return d->detail(QLatin1String("description")).toString();
}

QString AnySetting::unit() const
{
    return d->detail(QLatin1String("valueUnit")).toString();
}

Reply<Change> AnySetting::set(const QVariant& value, const ChangeOptions& options)
{
    d->dropNext();
    return d->change(value, options);
}

void AnySetting::setSoon(const QVariant& value)
{
    d->changeSoon(value);
}

AnySetting::Fit AnySetting::take(const QVariant& value)
{
    return detail::isSameValue(value, d->m_value) ? Fit::Same : Fit::Different;
}

} // namespace tulo

#include "setting.moc"
