#include "api/core/language.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <iterator>

namespace {

// "de_AT" is looked for as de_AT, then as de. A locale is a text, never a wildcard.
QStringList catalogueNames(const QDir& directory, const QString& locale)
{
    const QStringList all =
        directory.entryList({ QStringLiteral("*.qm") }, QDir::Files, QDir::Name);
    const QStringList locales { locale, locale.section(QLatin1Char('_'), 0, 0) };
    for (const QString& candidate : locales) {
        const QString ending = QStringLiteral("_%1.qm").arg(candidate);
        QStringList names;
        std::copy_if(all.cbegin(), all.cend(), std::back_inserter(names),
                     [&ending](const QString& name) { return name.endsWith(ending); });
        if (!names.isEmpty())
            return names;
    }
    return {};
}

} // namespace

Language* Language::instance()
{
    // Never destroyed: workers may still be connected to it while the process ends.
    static auto* const language = new Language;
    return language;
}

int Language::setLocale(const QString& locale, const QStringList& catalogueDirectories)
{
    // The destructor of a translator takes it out of the application.
    m_translators.clear();
    m_locale = locale;
    for (const QString& path : catalogueDirectories) {
        const QDir directory(path);
        const QStringList names =
            locale.isEmpty() ? QStringList() : catalogueNames(directory, locale);
        for (const QString& name : names) {
            auto translator = std::make_unique<QTranslator>();
            if (!translator->load(directory.filePath(name)))
                continue;
            QCoreApplication::installTranslator(translator.get());
            m_translators.push_back(std::move(translator));
        }
    }
    emit languageChanged();
    return int(m_translators.size());
}

QString Language::locale() const
{
    return m_locale;
}
