#include "FrameCatalogue.h"

#include "Texts.h"

#include <QFile>
#include <QFileInfo>

#include <sqlite3.h>

namespace orx {

namespace {

constexpr int kStepsPerCheck = 1000;
constexpr int kLongestText = 1000;

//! Every byte that means something in a URI, and every one beyond ASCII, is escaped.
QByteArray immutableUri(const QString& path) {
    const QByteArray name = QFile::encodeName(QFileInfo(path).absoluteFilePath());
    return "file://" + name.toPercentEncoding("/") + "?mode=ro&immutable=1";
}

void harden(sqlite3* database) {
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, 1024 * 1024);
    sqlite3_limit(database, SQLITE_LIMIT_VDBE_OP, 25'000);
    sqlite3_exec(database,
                 "PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0; PRAGMA cache_size = -1024; "
                 "PRAGMA temp_store = MEMORY",
                 nullptr, nullptr, nullptr);
}

} // namespace

FrameCatalogue::Rows::~Rows() {
    sqlite3_finalize(m_statement);
}

Result<bool> FrameCatalogue::Rows::next() {
    const int outcome = sqlite3_step(m_statement);
    if (outcome == SQLITE_ROW)
        return true;
    if (outcome == SQLITE_DONE)
        return false;
    return m_catalogue.failure();
}

bool FrameCatalogue::Rows::isNull(int column) const {
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

double FrameCatalogue::Rows::number(int column) const {
    return sqlite3_column_double(m_statement, column);
}

qint64 FrameCatalogue::Rows::integer(int column) const {
    return sqlite3_column_int64(m_statement, column);
}

QString FrameCatalogue::Rows::text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return QString::fromUtf8(text, sqlite3_column_bytes(m_statement, column)).left(kLongestText);
}

Result<std::unique_ptr<FrameCatalogue>> FrameCatalogue::open(const QString& path, const std::stop_token& stop,
                                                             qint64 mostSteps) {
    auto catalogue = std::unique_ptr<FrameCatalogue>(new FrameCatalogue);
    catalogue->m_stop = stop;
    catalogue->m_mostSteps = mostSteps;
    const int outcome =
        sqlite3_open_v2(immutableUri(path).constData(), &catalogue->m_database,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    if (outcome != SQLITE_OK)
        return catalogue->failure();
    harden(catalogue->m_database);
    sqlite3_progress_handler(catalogue->m_database, kStepsPerCheck, &FrameCatalogue::onProgress,
                             catalogue.get());
    return catalogue;
}

FrameCatalogue::~FrameCatalogue() {
    sqlite3_close(m_database);
}

int FrameCatalogue::onProgress(void* self) {
    auto* catalogue = static_cast<FrameCatalogue*>(self);
    catalogue->m_steps += kStepsPerCheck;
    const bool isTooLong = catalogue->m_steps > catalogue->m_mostSteps;
    return isTooLong || catalogue->m_stop.stop_requested() ? 1 : 0;
}

Error FrameCatalogue::failure() const {
    if (m_stop.stop_requested())
        return Error(ErrorCode::Canceled, msText("Canceled."));
    return unreadable(
        QString::fromUtf8(m_database ? sqlite3_errmsg(m_database) : sqlite3_errstr(SQLITE_NOMEM)));
}

Error FrameCatalogue::unreadable(const QString& why) {
    return Error(ErrorCode::ParseError,
                 msText("Its catalogue \"analysis.tdf\" cannot be read: %1.").arg(why));
}

Result<std::unique_ptr<FrameCatalogue::Rows>> FrameCatalogue::query(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_database, sql, -1, &statement, nullptr) != SQLITE_OK)
        return failure();
    return std::unique_ptr<Rows>(new Rows(*this, statement));
}

Error FrameCatalogue::checkIsTable(const char* name) {
    // Views and virtual tables have no page of their own.
    auto rows =
        query("SELECT type = 'table' AND rootpage > 0 FROM sqlite_schema WHERE name = ?1 COLLATE NOCASE");
    ORX_RETURN_ON_ERROR(rows.error());
    sqlite3_bind_text((*rows)->m_statement, 1, name, -1, SQLITE_TRANSIENT);
    const auto found = (*rows)->next();
    ORX_RETURN_ON_ERROR(found.error());
    // What is missing is told of by whoever asks it.
    const bool isTable = !*found || (*rows)->integer(0) == 1;
    return isTable ? checkHasItsValues(name)
                   : unreadable(msText("\"%1\" is no table").arg(QLatin1String(name)));
}

//! A column that is worked out whenever it is read may take any time for each row.
Error FrameCatalogue::checkHasItsValues(const char* name) {
    constexpr const char* virtualColumns = "SELECT count(*) FROM pragma_table_xinfo(?1) WHERE hidden = 2";
    auto rows = query(virtualColumns);
    ORX_RETURN_ON_ERROR(rows.error());
    sqlite3_bind_text((*rows)->m_statement, 1, name, -1, SQLITE_TRANSIENT);
    const auto counted = (*rows)->next();
    ORX_RETURN_ON_ERROR(counted.error());
    if ((*rows)->integer(0) == 0)
        return {};
    return unreadable(msText("columns of \"%1\" are worked out when they are read").arg(QLatin1String(name)));
}

Result<QString> FrameCatalogue::property(const QString& key) {
    ORX_RETURN_ON_ERROR(checkIsTable("GlobalMetadata"));
    auto rows = query("SELECT Value FROM GlobalMetadata WHERE Key = ?1");
    if (rows.hasError())
        return rows.error();
    const QByteArray wanted = key.toUtf8();
    sqlite3_bind_text(rows.value()->m_statement, 1, wanted.constData(), int(wanted.size()), SQLITE_TRANSIENT);
    const auto found = rows.value()->next();
    if (found.hasError())
        return found.error();
    return *found ? rows.value()->text(0) : QString();
}

} // namespace orx
