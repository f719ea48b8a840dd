#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTranslator>

#include <memory>
#include <vector>

/// The language of the process: the catalogues that translatable texts are looked up in.
///
/// One object for the process, created on first use on the thread that asks first and living as
/// long as the process. Needs a QCoreApplication before a locale is set.
class Language : public QObject
{
    Q_OBJECT

public:
    static Language* instance();

    /// Replaces the installed catalogues by every "NAME_LOCALE.qm" of the directories and
    /// announces languageChanged(). `locale` is a name such as "de" or "de_AT"; a catalogue of
    /// the plain language serves where there is none for the country. An empty locale returns to
    /// the source texts. Returns the number of catalogues installed; a file that cannot be
    /// loaded is left out. Application thread only.
    int setLocale(const QString& locale, const QStringList& catalogueDirectories);

    /// The locale set last, empty at first.
    QString locale() const;

signals:
    /// The texts read differently from now on.
    void languageChanged();

private:
    Language() = default;

    QString m_locale;
    std::vector<std::unique_ptr<QTranslator>> m_translators;
};
