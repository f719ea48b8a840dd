#include "tulo/rowsmodel.h"

#include "tulo/setting.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QSet>
#include <QVector>

#include <algorithm>
#include <utility>

namespace tulo {
namespace {

// Rows of one request, and requests under way.
constexpr int pageSize = 64;
constexpr int maximumRequests = 3;

/// A row as the model knows it.
struct Entry
{
    Row row;
    bool isLoaded = false;
    bool isWanted = false; ///< to be requested
    bool isRequested = false;
};

bool isSameRow(const Row& left, const Row& right)
{
    return left.name == right.name && left.isDirectory == right.isDirectory
        && left.error == right.error && detail::isSameValue(left.roles, right.roles);
}

Entry loaded(const Row& row)
{
    Entry entry;
    entry.row = row;
    entry.isLoaded = true;
    return entry;
}

QVector<Entry> entriesOf(const Rows& rows)
{
    QVector<Entry> entries(rows.count);
    std::transform(rows.rows.cbegin(), rows.rows.cend(), entries.begin(), loaded);
    return entries;
}

} // namespace

// The rows follow the events, and each answer has to agree with them: it comes after the events of
// all that it knows of. One that does not agree means that events are missing; then everything is
// listed again and compared by name.
class RowsModelPrivate : public QObject
{
public:
    RowsModelPrivate(RowsModel* model, Settings* settings, const QString& path,
                     const QStringList& roles);

    /// Has the page of this row loaded.
    void want(int row);

    RowsModel* const q;
    const QString m_path;
    const QStringList m_roles;
    QVector<Entry> m_entries;
    bool m_isReady = false;
    Error m_error; ///< of the last answer
    Error m_watchError; ///< the rows are not kept current

private:
    void list();
    void on_listing(const Reply<Rows>& reply);
    void compare(const Rows& rows);
    bool hasNames(int first, const QVector<Row>& rows) const;
    bool keepsOrder(const Rows& rows) const;
    void removeAllBut(const QSet<QString>& names);
    void insertMissing(const Rows& rows);

    void on_event(const Event& event);
    void on_stateChanged(Settings::State state);

    void requestLater();
    void requestWanted();
    void request(int first, int last);
    void on_page(const Reply<Rows>& reply, int first, int last);
    void requestAgain();
    void load(int first, const QVector<Row>& rows);

    Error malformed() const;
    void fail(const Error& error);
    void setError(const Error& error);

    const QPointer<Settings> m_settings;
    std::unique_ptr<Watch> m_watch;
    int m_version = 0;
    int m_epoch = 0; ///< of listings: answers to what was requested before do not count
    bool m_isListing = false;
    bool m_isRequestQueued = false;
    int m_requests = 0; ///< pages under way
    int m_lastAskedFor = 0; ///< row
};

RowsModelPrivate::RowsModelPrivate(RowsModel* model, Settings* settings, const QString& path,
                                   const QStringList& roles)
    : q(model)
    , m_path(path)
    , m_roles(roles)
    , m_settings(settings)
    , m_watch(settings->watch(path))
{
    connect(m_watch.get(), &Watch::changed, this, &RowsModelPrivate::on_event);
    connect(m_watch.get(), &Watch::missed, this, [this] {
        m_watchError = {};
        list();
    });
    connect(m_watch.get(), &Watch::failed, this, [this](const Error& error) {
        m_watchError = error;
        emit q->errorChanged();
    });
    connect(settings, &Settings::stateChanged, this, &RowsModelPrivate::on_stateChanged);
    list();
}

// ---------------------------------------------------------------------------------------------
// Listing: at the start, and whenever events are missing.
// ---------------------------------------------------------------------------------------------

// All rows at once where they fit into one answer, so that they can be compared.
void RowsModelPrivate::list()
{
    if (!m_settings)
        return;
    ++m_epoch;
    m_isListing = true;
    m_requests = 0;
    const int count =
        m_isReady ? qBound(pageSize, m_entries.size(), Settings::maximumRows) : pageSize;
    m_settings->rows(m_path, 0, count - 1, m_roles)
        .then(this, [this, epoch = m_epoch](const Reply<Rows>& reply) {
            if (epoch == m_epoch)
                on_listing(reply);
        });
}

void RowsModelPrivate::on_listing(const Reply<Rows>& reply)
{
    m_isListing = false;
    if (reply.error()) {
        fail(reply.error());
        return;
    }
    if (reply.value().rows.size() > reply.value().count) {
        fail(malformed());
        return;
    }
    m_version = reply.value().version;
    compare(reply.value());
    requestAgain();
    setError({});
    if (!std::exchange(m_isReady, true))
        emit q->readyChanged();
}

void RowsModelPrivate::compare(const Rows& rows)
{
    if (m_entries.isEmpty() && rows.count > 0) {
        q->beginInsertRows({}, 0, rows.count - 1);
        m_entries = entriesOf(rows);
        q->endInsertRows();
    } else if (m_entries.size() == rows.count && hasNames(0, rows.rows)) {
        // Those that did not fit may have changed as well.
        for (int row = rows.rows.size(); row < m_entries.size(); ++row)
            m_entries[row].isWanted = m_entries.at(row).isLoaded;
    } else if (rows.rows.size() == rows.count && keepsOrder(rows)) {
        QSet<QString> names;
        for (const Row& row : rows.rows)
            names.insert(row.name);
        removeAllBut(names);
        insertMissing(rows);
    } else {
        q->beginResetModel();
        m_entries = entriesOf(rows);
        q->endResetModel();
    }
    load(0, rows.rows);
}

// Whether these rows have the names that are known from `first` on.
bool RowsModelPrivate::hasNames(int first, const QVector<Row>& rows) const
{
    return std::equal(rows.cbegin(), rows.cend(), m_entries.cbegin() + first,
                      [](const Row& row, const Entry& entry) {
                          return !entry.isLoaded || entry.row.name == row.name;
                      });
}

// Whether those rows that are there before and after are in the same order.
bool RowsModelPrivate::keepsOrder(const Rows& rows) const
{
    QHash<QString, int> places;
    for (int row = 0; row < rows.rows.size(); ++row)
        places.insert(rows.rows.at(row).name, row);
    int last = -1;
    for (const Entry& entry : m_entries) {
        const int place = entry.isLoaded ? places.value(entry.row.name, last) : last;
        if (place < last)
            return false;
        last = place;
    }
    return true;
}

void RowsModelPrivate::removeAllBut(const QSet<QString>& names)
{
    for (int last = m_entries.size() - 1; last >= 0; --last) {
        const auto isKept = [&](int row) {
            return m_entries.at(row).isLoaded && names.contains(m_entries.at(row).row.name);
        };
        if (isKept(last))
            continue;
        int first = last;
        while (first > 0 && !isKept(first - 1))
            --first;
        q->beginRemoveRows({}, first, last);
        m_entries.remove(first, last - first + 1);
        q->endRemoveRows();
        last = first;
    }
}

void RowsModelPrivate::insertMissing(const Rows& rows)
{
    const auto isThere = [&](int row, int place) {
        return place < m_entries.size() && m_entries.at(place).row.name == rows.rows.at(row).name;
    };
    for (int first = 0; first < rows.rows.size(); ++first) {
        if (isThere(first, first))
            continue;
        int last = first;
        while (last + 1 < rows.rows.size() && !isThere(last + 1, first))
            ++last;
        q->beginInsertRows({}, first, last);
        for (int row = first; row <= last; ++row)
            m_entries.insert(row, loaded(rows.rows.at(row)));
        q->endInsertRows();
        first = last;
    }
}

// ---------------------------------------------------------------------------------------------
// Events: "3", "+3", "-3".
// ---------------------------------------------------------------------------------------------

void RowsModelPrivate::on_event(const Event& event)
{
    // What happens before the answer to a listing is in it.
    if (event.kind != Event::Kind::Rows || m_isListing)
        return;
    const bool isNew = event.command.startsWith(QLatin1Char('+'));
    const bool isGone = event.command.startsWith(QLatin1Char('-'));
    bool isNumber = false;
    const int row = event.command.mid(isNew || isGone ? 1 : 0).toInt(&isNumber);
    const int end = m_entries.size() + (isNew ? 1 : 0);
    if (!m_isReady || m_error || event.version != m_version + 1 || !isNumber || row < 0
        || row >= end) {
        list();
        return;
    }
    m_version = event.version;
    if (isNew) {
        q->beginInsertRows({}, row, row);
        m_entries.insert(row, Entry());
        q->endInsertRows();
    } else if (isGone) {
        q->beginRemoveRows({}, row, row);
        m_entries.remove(row);
        q->endRemoveRows();
    } else if (m_entries.at(row).isLoaded) {
        m_entries[row].isWanted = true;
    }
    if (isNew || isGone)
        requestAgain();
    requestLater();
}

void RowsModelPrivate::on_stateChanged(Settings::State state)
{
    if (state == Settings::State::Ready && m_error && !m_isListing)
        list();
}

// ---------------------------------------------------------------------------------------------
// Pages.
// ---------------------------------------------------------------------------------------------

void RowsModelPrivate::want(int row)
{
    m_lastAskedFor = row;
    if (m_entries.at(row).isRequested || m_entries.at(row).isWanted)
        return;
    const int first = row - row % pageSize;
    const int end = qMin(first + pageSize, m_entries.size());
    for (int i = first; i < end; ++i) {
        Entry& entry = m_entries[i];
        entry.isWanted = entry.isWanted || (!entry.isLoaded && !entry.isRequested);
    }
    requestLater();
}

// What is wanted in one turn of the event loop is requested together.
void RowsModelPrivate::requestLater()
{
    if (std::exchange(m_isRequestQueued, true))
        return;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_isRequestQueued = false;
            requestWanted();
        },
        Qt::QueuedConnection);
}

// First where the program looked last.
void RowsModelPrivate::requestWanted()
{
    if (m_isListing || m_error || !m_settings)
        return;
    const auto isWanted = [](const Entry& entry) {
        return entry.isWanted;
    };
    while (m_requests < maximumRequests) {
        const auto begin = m_entries.cbegin();
        const auto end = m_entries.cend();
        auto wanted =
            std::find_if(begin + qMin(m_lastAskedFor - m_lastAskedFor % pageSize, m_entries.size()),
                         end, isWanted);
        if (wanted == end)
            wanted = std::find_if(begin, end, isWanted);
        if (wanted == end)
            return;
        const int first = int(std::distance(begin, wanted));
        int last = qMin(first + pageSize, m_entries.size()) - 1;
        while (!m_entries.at(last).isWanted)
            --last;
        request(first, last);
    }
}

void RowsModelPrivate::request(int first, int last)
{
    for (int row = first; row <= last; ++row) {
        m_entries[row].isWanted = false;
        m_entries[row].isRequested = true;
    }
    ++m_requests;
    m_settings->rows(m_path, first, last, m_roles)
        .then(this, [this, first, last, epoch = m_epoch](const Reply<Rows>& reply) {
            if (epoch == m_epoch)
                on_page(reply, first, last);
        });
}

void RowsModelPrivate::on_page(const Reply<Rows>& reply, int first, int last)
{
    --m_requests;
    if (reply.error()) {
        fail(reply.error());
        return;
    }
    const Rows& answer = reply.value();
    if (answer.version != m_version || answer.count != m_entries.size()) {
        list();
        return;
    }
    // Rows may have gone since it was requested, of which there were events.
    const int present = qMin(last + 1, answer.count) - first;
    if (answer.rows.isEmpty() ? present > 0 : answer.rows.size() > present) {
        fail(malformed());
        return;
    }
    if (!hasNames(first, answer.rows)) {
        q->beginResetModel();
        m_entries = QVector<Entry>(m_entries.size());
        q->endResetModel();
    }
    // More did not fit.
    for (int row = first + answer.rows.size(); row <= last && row < m_entries.size(); ++row) {
        m_entries[row].isRequested = false;
        m_entries[row].isWanted = true;
    }
    load(first, answer.rows);
    requestWanted();
}

// What is under way may be about other rows than it was requested for.
void RowsModelPrivate::requestAgain()
{
    for (Entry& entry : m_entries) {
        if (std::exchange(entry.isRequested, false))
            entry.isWanted = true;
    }
    requestLater();
}

void RowsModelPrivate::load(int first, const QVector<Row>& rows)
{
    int firstChanged = -1;
    int lastChanged = -1;
    for (int i = 0; i < rows.size(); ++i) {
        Entry& entry = m_entries[first + i];
        const bool isKept = entry.isLoaded && isSameRow(entry.row, rows.at(i));
        const bool isWanted = entry.isWanted;
        entry = loaded(rows.at(i));
        // Since the request was sent.
        entry.isWanted = isWanted;
        if (isKept)
            continue;
        lastChanged = first + i;
        if (firstChanged < 0)
            firstChanged = lastChanged;
    }
    if (firstChanged >= 0) {
        emit q->dataChanged(q->index(firstChanged, 0), q->index(lastChanged, m_roles.size()));
    }
}

// ---------------------------------------------------------------------------------------------
// Errors: nothing is requested until the settings are ready or something happens.
// ---------------------------------------------------------------------------------------------

Error RowsModelPrivate::malformed() const
{
    return { ErrorCode::Internal,
             QStringLiteral("'%1' was answered with a wrong number of rows").arg(m_path), m_path };
}

void RowsModelPrivate::fail(const Error& error)
{
    // Cancelled: the settings are being destroyed.
    if (error.code == ErrorCode::Cancelled)
        return;
    setError(error);
}

void RowsModelPrivate::setError(const Error& error)
{
    if (error == m_error)
        return;
    m_error = error;
    emit q->errorChanged();
}

// ---------------------------------------------------------------------------------------------
// RowsModel.
// ---------------------------------------------------------------------------------------------

RowsModel::RowsModel(Settings* settings, const QString& path, const QStringList& roles,
                     QObject* parent)
    : QAbstractItemModel(parent)
    , d(std::make_unique<RowsModelPrivate>(this, settings, path, roles))
{
}

RowsModel::~RowsModel() = default;

const QString& RowsModel::path() const
{
    return d->m_path;
}

bool RowsModel::isReady() const
{
    return d->m_isReady;
}

Error RowsModel::error() const
{
    return d->m_error ? d->m_error : d->m_watchError;
}

QString RowsModel::errorMessage() const
{
    return error().message;
}

QModelIndex RowsModel::index(int row, int column, const QModelIndex& parent) const
{
    return hasIndex(row, column, parent) ? createIndex(row, column) : QModelIndex();
}

QModelIndex RowsModel::parent(const QModelIndex&) const
{
    return {};
}

int RowsModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : d->m_entries.size();
}

int RowsModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : 1 + d->m_roles.size();
}

Qt::ItemFlags RowsModel::flags(const QModelIndex& index) const
{
    const Qt::ItemFlags flags = QAbstractItemModel::flags(index);
    return index.isValid() ? flags | Qt::ItemNeverHasChildren : flags;
}

namespace {

/// As a view shows it: lists as JSON.
QVariant shown(const QVariant& value)
{
    if (value.userType() != QMetaType::QVariantList)
        return value;
    const QJsonDocument document(QJsonArray::fromVariantList(value.toList()));
    return QString::fromUtf8(document.toJson(QJsonDocument::Compact));
}

} // namespace

QVariant RowsModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid))
        return {};
    const Entry& entry = d->m_entries.at(index.row());
    if (!entry.isLoaded) {
        d->want(index.row());
        return {};
    }
    const Row& row = entry.row;
    const auto roleAt = [&](int place) {
        return row.roles.value(d->m_roles.value(place));
    };
    switch (role) {
    case Qt::DisplayRole:
        return index.column() == 0 ? QVariant(row.name) : shown(roleAt(index.column() - 1));
    case NameRole:
        return row.name;
    case PathRole:
        return QString(d->m_path + QLatin1Char('/') + row.name);
    case IsDirectoryRole:
        return row.isDirectory;
    case ErrorMessageRole:
        return row.error.message;
    default:
        return role >= FirstSettingRole ? roleAt(role - FirstSettingRole) : QVariant();
    }
}

QVariant RowsModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractItemModel::headerData(section, orientation, role);
    return section == 0 ? QStringLiteral("name") : d->m_roles.value(section - 1);
}

QHash<int, QByteArray> RowsModel::roleNames() const
{
    QHash<int, QByteArray> names { { Qt::DisplayRole, "display" },
                                   { NameRole, "name" },
                                   { PathRole, "path" },
                                   { IsDirectoryRole, "isDirectory" },
                                   { ErrorMessageRole, "errorMessage" } };
    for (int place = 0; place < d->m_roles.size(); ++place)
        names.insert(FirstSettingRole + place, d->m_roles.at(place).toUtf8());
    return names;
}

} // namespace tulo
