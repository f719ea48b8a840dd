#include "trees/texts.h"

#include "trees/fileprobe.h"
#include "trees/locatedjson.h"
#include "trees/separator.h"
#include "trees/treereader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <algorithm>
#include <array>
#include <map>
#include <tuple>

namespace tulo {

namespace {

const std::array<QLatin1String, 4> textRoles { QLatin1String("title"), QLatin1String("description"),
                                               QLatin1String("longDescription"),
                                               QLatin1String("valueUnit") };

// As the worker makes it.
QString contextOf(const QString& settingPath)
{
    return QLatin1String("@settings") + settingPath.left(settingPath.lastIndexOf(separator));
}

// Collects the texts of one tree, each place once: several children may have the texts of one
// template.
class Collection
{
public:
    explicit Collection(const QString& defaultPath)
        : m_tree(QDir(defaultPath).absolutePath())
        , m_reader(m_tree, QString(), QString())
    {
    }

    QVector<TreeText> texts()
    {
        const QStringList paths = m_reader.nodes(QString(separator));
        for (const QString& path : paths) {
            if (m_reader.isDirectory(path))
                addTemplate(path);
            else
                addSetting(path);
        }
        QVector<TreeText> result;
        for (const auto& [place, text] : m_texts)
            result.append(text);
        return result;
    }

private:
    void add(const QString& settingPath, const QString& role, const QString& text,
             const QString& file, int line)
    {
        if (!text.isEmpty()) {
            m_texts.try_emplace(
                { file, line, role },
                TreeText { contextOf(settingPath), text, role, settingPath, file, line });
        }
    }

    void addSetting(const QString& path)
    {
        for (const RoleOrigin& origin : m_reader.explain(path)) {
            if (origin.state == RoleOrigin::State::Effective && origin.line > 0
                && std::find(textRoles.begin(), textRoles.end(), origin.role) != textRoles.end())
                add(path, origin.role, origin.value.toString(),
                    QDir(m_tree).relativeFilePath(origin.file), origin.line);
        }
    }

    // Children that clients make have the texts of the template.
    void addTemplate(const QString& directory)
    {
        const QString path =
            (directory == separator ? QString() : directory) + QLatin1String("/.meta");
        QFile file(m_tree + path);
        if (!QFileInfo(file).isFile() || !file.open(QIODevice::ReadOnly))
            return;
        const LocatedJson document = parseLocated(file.read(FileProbe::maximumFileBytes));
        const QVariantHash roles = document.value.toHash();
        if (!roles.value(QStringLiteral("modifiable"), true).toBool())
            return;
        for (const QLatin1String role : textRoles) {
            add(path, role, roles.value(role).toString(), path.mid(1),
                document.position(pointerTo(QString(), role)).line);
        }
    }

    const QString m_tree;
    const TreeReader m_reader;
    std::map<std::tuple<QString, int, QString>, TreeText> m_texts; ///< by file, line and role
};

// As a string literal of C++, which is what lupdate reads.
QByteArray literal(const QString& text)
{
    QByteArray result = "\"";
    for (const char byte : text.toUtf8()) {
        if (byte == '"' || byte == '\\')
            result += '\\';
        // Three octal digits end by themselves.
        if (uchar(byte) < 0x20 || byte == 0x7f)
            result += '\\' + QByteArray::number(uchar(byte), 8).rightJustified(3, '0');
        else
            result += byte;
    }
    return result + '"';
}

// A comment for translators must not end early.
QByteArray comment(const TreeText& text)
{
    QString place = text.role + QLatin1String(" of ") + text.settingPath;
    return "/*: " + place.replace(QLatin1String("*/"), QLatin1String("* /")).toUtf8() + " */ ";
}

bool writeFile(const QString& name, const QByteArray& content)
{
    QFile file(name);
    return QDir().mkpath(QFileInfo(name).path()) && file.open(QIODevice::WriteOnly)
        && file.write(content) == content.size();
}

// Copies of the tree's files, in which each text stands as lupdate finds it, on its own line.
bool writeMirror(const QString& folder, const QString& tree, const QVector<TreeText>& texts)
{
    std::map<QString, QByteArray> files;
    for (const TreeText& text : texts) {
        QByteArray& content = files[text.file];
        content += QByteArray(text.line - 1 - content.count('\n'), '\n');
        content += comment(text) + "QT_TRANSLATE_NOOP(" + literal(text.context) + ", "
            + literal(text.text) + "); ";
    }
    QByteArray list;
    for (const auto& [file, content] : files) {
        const QString name = folder + tree + QLatin1Char('/') + file;
        if (!writeFile(name, content))
            return false;
        list += QFile::encodeName(name) + '\n';
    }
    return writeFile(folder + QLatin1String("/list"), list);
}

void countMessages(CatalogueState* state)
{
    QXmlStreamReader reader(state->content);
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement
            || reader.name() != QLatin1String("translation"))
            continue;
        const auto type = reader.attributes().value(QLatin1String("type"));
        if (type.isEmpty())
            ++state->finished;
        else if (type == QLatin1String("unfinished"))
            ++state->unfinished;
        else
            ++state->vanished;
    }
}

// Debian keeps it apart from the programs of other versions of Qt.
QString lupdateProgram()
{
    const QString name = QStringLiteral("lupdate");
    const QString program =
        QStandardPaths::findExecutable(name, { QStringLiteral("/usr/lib/qt5/bin") });
    return program.isEmpty() ? name : program;
}

} // namespace

QVector<TreeText> textsOf(const QString& defaultPath)
{
    return Collection(defaultPath).texts();
}

CatalogueState updatedCatalogue(const QString& fileName, const QString& defaultPath,
                                const QVector<TreeText>& texts)
{
    CatalogueState state;
    const QTemporaryDir temporary;
    const QString folder = QFileInfo(temporary.path()).canonicalFilePath();
    const QString catalogue = QFileInfo(fileName).absoluteFilePath();
    // At the same place below the folder, so that the way from one to the other is the same.
    const QString copy = folder + catalogue;
    if (!writeMirror(folder, QFileInfo(defaultPath).absoluteFilePath(), texts)
        || !QDir().mkpath(QFileInfo(copy).path())
        || (QFile::exists(catalogue) && !QFile::copy(catalogue, copy))) {
        state.error = QStringLiteral("cannot copy the texts to '%1'").arg(folder);
        return state;
    }
    QProcess lupdate;
    lupdate.setProcessChannelMode(QProcess::MergedChannels);
    lupdate.start(lupdateProgram(),
                  { QLatin1Char('@') + folder + QLatin1String("/list"),
                    QStringLiteral("-locations"), QStringLiteral("absolute"),
                    QStringLiteral("-silent"), QStringLiteral("-ts"), copy });
    if (!lupdate.waitForStarted()) {
        state.error = QStringLiteral("cannot run lupdate, of the package qttools5-dev-tools");
        return state;
    }
    lupdate.waitForFinished(-1);
    const QString complaint = QString::fromLocal8Bit(lupdate.readAll()).simplified();
    QFile updated(copy);
    if (lupdate.exitStatus() != QProcess::NormalExit || lupdate.exitCode() != 0
        || !complaint.isEmpty() || !updated.open(QIODevice::ReadOnly)) {
        state.error = QStringLiteral("lupdate: %1").arg(complaint);
        return state;
    }
    state.content = updated.readAll();
    countMessages(&state);
    return state;
}

} // namespace tulo
