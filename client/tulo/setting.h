#pragma once

#include "tulo/error.h"
#include "tulo/export.h"
#include "tulo/reply.h"
#include "tulo/settings.h"

#include <QMetaEnum>
#include <QObject>
#include <QString>
#include <QVariant>

#include <memory>
#include <type_traits>
#include <utility>

namespace tulo {

class SettingPrivate;

namespace detail {

/// Compares values with their types, also inside of lists and maps: 5 is not "5".
TULO_SETTINGS_EXPORT bool isSameValue(const QVariant& left, const QVariant& right);

} // namespace detail

/// One setting as an object: its value, kept current, and the rest of it once it was asked for.
///
/// No function waits. Until the settings have answered, value() is the fallback that the program
/// gave; then it is what the settings say, and changes when they say so: set() alone does not
/// change it. Programs that know the type use Setting.
///
/// Lives on the thread of the settings. They may be destroyed first: then everything stays as it
/// is, and changes fail with Unavailable.
class TULO_SETTINGS_EXPORT AnySetting : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString path READ path CONSTANT)
    Q_PROPERTY(QVariant value READ value NOTIFY changed)
    Q_PROPERTY(bool ready READ isReady NOTIFY readyChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)
    Q_PROPERTY(QVariant defaultValue READ defaultValue NOTIFY detailsChanged)
    Q_PROPERTY(QVariant minimum READ minimum NOTIFY detailsChanged)
    Q_PROPERTY(QVariant maximum READ maximum NOTIFY detailsChanged)
    Q_PROPERTY(QVariant step READ step NOTIFY detailsChanged)
    Q_PROPERTY(QVariantList values READ values NOTIFY detailsChanged)
    Q_PROPERTY(bool modifiable READ isModifiable NOTIFY detailsChanged)
    Q_PROPERTY(QString title READ title NOTIFY detailsChanged)
    Q_PROPERTY(QString description READ description NOTIFY detailsChanged)
    Q_PROPERTY(QString unit READ unit NOTIFY detailsChanged)

public:
    AnySetting(Settings* settings, const QString& path, const QVariant& fallback = QVariant(),
               QObject* parent = nullptr);
    /// Sends what setSoon() has not sent yet.
    ~AnySetting() override;

    const QString& path() const;
    /// The last value that the settings gave, before the first the fallback.
    const QVariant& value() const;
    /// Whether the settings have given a value. Stays true while they are away.
    bool isReady() const;
    /// What went wrong last: the setting cannot be read or watched, its value is not of the
    /// expected type, or the last setSoon() failed. The next value clears it, unless the setting
    /// cannot be watched.
    Error error() const;
    QString errorMessage() const;

    // Details: requested from the settings when the first of them is asked for, and kept current
    // from then on. What is not known yet, and what the setting lacks, is empty.

    QVariant defaultValue() const;
    QVariant minimum() const;
    QVariant maximum() const;
    QVariant step() const;
    /// The only values that it can have; empty when others are possible.
    QVariantList values() const;
    /// True until it is known.
    bool isModifiable() const;
    QString title() const;
    QString description() const;
    QString unit() const;

    /// Changes the setting; the reply tells what came of it. Supersedes a pending setSoon().
    Reply<Change> set(const QVariant& value, const ChangeOptions& options = {});

public slots:
    /// Changes the setting as often as the settings can follow: while one change is under way,
    /// only the last value is kept, and sent next. For sliders.
    void setSoon(const QVariant& value);

signals:
    /// value() is another one.
    void changed();
    void readyChanged();
    void errorChanged();
    /// One of the details is another one.
    void detailsChanged();
    /// The last setSoon() was answered: value() is what came of it, also when that is what it was
    /// before; error() tells when it failed.
    void settled();

protected:
    enum class Fit { Mismatch, Same, Different };

    /// Takes a value that the settings gave, and compares it with the one before.
    virtual Fit take(const QVariant& value);

private:
    friend class SettingPrivate;

    const std::unique_ptr<SettingPrivate> d;
};

namespace detail {

// What a program's type is in the settings: toVariant() for a change, fromVariant() for a value,
// false when it is not of this type. Types are not converted into each other.

template<typename T, typename = void>
struct SettingType
{
    static_assert(
        std::is_same_v<
            T,
            bool> || std::is_same_v<T, qint64> || std::is_same_v<T, double> || std::is_same_v<T, QString> || std::is_same_v<T, QVariantList>,
        "a setting holds bool, qint64, double, QString, QVariantList or an enumeration");

    static QVariant toVariant(const T& value, const QVariant&) { return QVariant(value); }
    static bool fromVariant(const QVariant& variant, T* value)
    {
        if (variant.userType() != qMetaTypeId<T>())
            return false;
        *value = *static_cast<const T*>(variant.constData());
        return true;
    }
};

// What Q_ENUM declares for an enumeration.
template<typename T, typename = void>
inline constexpr bool hasKeys = false;
template<typename T>
inline constexpr bool hasKeys<T, std::void_t<decltype(qt_getEnumMetaObject(std::declval<T>()))>> =
    true;

// By number, or, when it is declared with Q_ENUM, by the text of its key; whichever the setting
// has. Before that is known, Q_ENUM means text.
template<typename T>
struct SettingType<T, std::enable_if_t<std::is_enum_v<T>>>
{
    static QVariant toVariant(T value, const QVariant& current)
    {
        if constexpr (hasKeys<T>) {
            if (current.userType() != QMetaType::LongLong)
                return QString::fromLatin1(QMetaEnum::fromType<T>().valueToKey(int(value)));
        }
        return qint64(value);
    }

    static bool fromVariant(const QVariant& variant, T* value)
    {
        if (variant.userType() == QMetaType::LongLong) {
            const qint64 number = variant.toLongLong();
            *value = T(number);
            return qint64(*value) == number;
        }
        bool isKey = false;
        if constexpr (hasKeys<T>) {
            if (variant.userType() == QMetaType::QString) {
                const QByteArray key = variant.toString().toUtf8();
                const int number = QMetaEnum::fromType<T>().keyToValue(key.constData(), &isKey);
                if (isKey)
                    *value = T(number);
            }
        }
        return isKey;
    }
};

} // namespace detail

/// A setting of a type that the program knows: bool, qint64, double, QString, QVariantList or an
/// enumeration. value() costs as much as a member.
///
/// A value of another type in the tree is an error(), and value() stays as it is.
///
///     tulo::Setting<qint64> volume(&settings, QStringLiteral("/settings/audio/volume"), 35);
///     connect(&volume, &tulo::AnySetting::changed, this, [&] { setGain(volume.value()); });
template<typename T>
class Setting : public AnySetting
{
    using Type = detail::SettingType<T>;

public:
    explicit Setting(Settings* settings, const QString& path, const T& fallback = T(),
                     QObject* parent = nullptr)
        : AnySetting(settings, path, Type::toVariant(fallback, QVariant()), parent)
        , m_value(fallback)
    {
    }

    const T& value() const { return m_value; }

    Reply<Change> set(const T& value, const ChangeOptions& options = {})
    {
        return AnySetting::set(Type::toVariant(value, AnySetting::value()), options);
    }
    void setSoon(const T& value)
    {
        AnySetting::setSoon(Type::toVariant(value, AnySetting::value()));
    }

protected:
    Fit take(const QVariant& variant) override
    {
        T value {};
        if (!Type::fromVariant(variant, &value))
            return Fit::Mismatch;
        if (isSameAsNow(value))
            return Fit::Same;
        m_value = value;
        return Fit::Different;
    }

private:
    bool isSameAsNow(const T& value) const
    {
        if constexpr (std::is_same_v<T, QVariantList>)
            return detail::isSameValue(value, m_value);
        else
            return value == m_value;
    }

    T m_value;
};

} // namespace tulo
