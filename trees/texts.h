#pragma once

#include <QString>
#include <QVector>

namespace tulo {

/// A text of a default tree that is translated when it is read.
struct TreeText
{
    QString context; ///< of catalogues, such as "@settings/audio"
    QString text; ///< in the source language
    QString role;
    QString settingPath; ///< of a template: of its ".meta"
    QString file; ///< below the tree, such as "audio/volume"
    int line = 0;
};

/// The texts of all settings, product variants and templates of the default tree, by file and
/// line. A file that cannot be read or parsed has none.
[[nodiscard]] QVector<TreeText> textsOf(const QString& defaultPath);

/// How far a catalogue is.
struct CatalogueState
{
    QString error; ///< why the catalogue could not be made, in one line; else empty
    QByteArray content; ///< of the catalogue with the tree's texts
    int finished = 0;
    int unfinished = 0; ///< not translated, or to be looked at again
    int vanished = 0; ///< in the catalogue and no longer in the tree
};

/// What Qt's lupdate makes of `texts` and the catalogue `fileName` (of Qt Linguist, "*.ts"), which
/// need not exist and stays as it is. Translations are kept, those of vanished texts too; the
/// places in it are those of the tree's files. Runs the program and waits for it.
[[nodiscard]] CatalogueState updatedCatalogue(const QString& fileName, const QString& defaultPath,
                                              const QVector<TreeText>& texts);

} // namespace tulo
