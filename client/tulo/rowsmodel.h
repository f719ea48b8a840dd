#pragma once

#include "tulo/error.h"
#include "tulo/export.h"
#include "tulo/settings.h"

#include <QAbstractItemModel>
#include <QByteArray>
#include <QHash>
#include <QModelIndex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

namespace tulo {

class RowsModelPrivate;

/// The rows of one directory, its settings and directories, for QTreeView, ListView and the like.
///
/// Has as many rows as the directory as soon as their number is known. What is in a row is
/// requested when it is first asked for, some rows at a time, and is empty until then. The rows
/// follow the directory; selections stay with their rows. The model does not change settings:
/// programs do that by PathRole.
///
/// Lives on the thread of the settings. They may be destroyed first: then the rows stay as they
/// are.
class TULO_SETTINGS_EXPORT RowsModel : public QAbstractItemModel
{
    Q_OBJECT
    Q_PROPERTY(QString path READ path CONSTANT)
    Q_PROPERTY(bool ready READ isReady NOTIFY readyChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)

public:
    // Of every column, and by their names in QML: name, path, isDirectory, errorMessage, and the
    // names of the setting's roles that the model was made with.
    enum Role {
        NameRole = Qt::UserRole,
        PathRole, ///< of the setting or directory
        IsDirectoryRole,
        ErrorMessageRole, ///< why the row cannot be served; empty when it can
        FirstSettingRole ///< of the roles that the model was made with, in their order
    };
    Q_ENUM(Role)

    /// Column 0 shows the names, each further one a role: "value", "title", "valueUnit", ...
    RowsModel(Settings* settings, const QString& path,
              const QStringList& roles = { QStringLiteral("value"), QStringLiteral("title") },
              QObject* parent = nullptr);
    ~RowsModel() override;

    const QString& path() const;
    /// Whether the rows are known. Stays true while the settings are away.
    bool isReady() const;
    /// What went wrong last; cleared by the next answer.
    Error error() const;
    QString errorMessage() const;

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;
    using QObject::parent;

signals:
    void readyChanged();
    void errorChanged();

private:
    friend class RowsModelPrivate;

    const std::unique_ptr<RowsModelPrivate> d;
};

} // namespace tulo
