#include "store/SqliteDb.h"

#include <sqlite3.h>

#include "store/StoreError.h"

namespace store {

namespace {

int openFlags(SqliteDb::Mode mode)
{
    switch (mode) {
    case SqliteDb::Mode::ReadOnly: return SQLITE_OPEN_READONLY;
    case SqliteDb::Mode::ReadWrite: return SQLITE_OPEN_READWRITE;
    case SqliteDb::Mode::Create: return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    }
    return SQLITE_OPEN_READONLY;
}

}  // namespace

SqliteDb::SqliteDb(const std::string& path, Mode mode) : path_(path)
{
    // NOMUTEX: each connection has one owner thread, so SQLite's own locking is wasted time.
    const int rc =
        sqlite3_open_v2(path.c_str(), &db_, openFlags(mode) | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close(db_);
        db_ = nullptr;
        throw StoreError(path + ": cannot open: " + message);
    }
    sqlite3_extended_result_codes(db_, 1);
}

SqliteDb::~SqliteDb() { sqlite3_close_v2(db_); }

void SqliteDb::fail(const std::string& what) const
{
    throw StoreError(path_ + ": " + what + ": " + sqlite3_errmsg(db_));
}

void SqliteDb::exec(const std::string& sql)
{
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : sqlite3_errmsg(db_);
        sqlite3_free(error);
        throw StoreError(path_ + ": " + message);
    }
}

int64_t SqliteDb::queryInt(const std::string& sql)
{
    Statement statement(*this, sql.c_str());
    return statement.step() ? statement.columnInt(0) : 0;
}

Statement::Statement(SqliteDb& db, const char* sql) : db_(db)
{
    if (sqlite3_prepare_v3(db.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) !=
        SQLITE_OK) {
        db.fail("cannot prepare a query");
    }
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement& Statement::reset()
{
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    return *this;
}

Statement& Statement::bind(int index, int64_t value)
{
    if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) db_.fail("cannot bind a value");
    return *this;
}

Statement& Statement::bind(int index, const std::string& value)
{
    if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        db_.fail("cannot bind a value");
    }
    return *this;
}

Statement& Statement::bindBlob(int index, const std::string& bytes)
{
    if (sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        db_.fail("cannot bind a value");
    }
    return *this;
}

bool Statement::step()
{
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    db_.fail("query failed");
}

void Statement::run()
{
    while (step()) {}
}

int64_t Statement::columnInt(int column) const { return sqlite3_column_int64(stmt_, column); }

std::string Statement::columnText(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
                : std::string();
}

bool Statement::columnIsNull(int column) const
{
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

Transaction::Transaction(SqliteDb& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction()
{
    if (!open_) return;
    try {
        db_.exec("ROLLBACK");
    } catch (const StoreError&) {
        // A failed rollback leaves SQLite to undo the journal on the next open.
    }
}

void Transaction::commit()
{
    db_.exec("COMMIT");
    open_ = false;
}

}  // namespace store
