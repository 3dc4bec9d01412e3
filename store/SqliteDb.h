// Thin RAII wrappers over the SQLite C API. Every failure becomes a StoreError that names
// the file and SQLite's own message. Neither class is thread-safe; one owner thread each.
#pragma once

#include <cstdint>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace store {

class SqliteDb {
public:
    enum class Mode { ReadOnly, ReadWrite, Create };

    SqliteDb(const std::string& path, Mode mode);
    ~SqliteDb();
    SqliteDb(const SqliteDb&) = delete;
    SqliteDb& operator=(const SqliteDb&) = delete;

    void exec(const std::string& sql);
    int64_t queryInt(const std::string& sql);
    sqlite3* handle() const { return db_; }
    const std::string& path() const { return path_; }
    [[noreturn]] void fail(const std::string& what) const;

private:
    std::string path_;
    sqlite3* db_ = nullptr;
};

// A prepared statement, reset before every use so that it can be kept for the life of the
// database connection.
class Statement {
public:
    Statement(SqliteDb& db, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& reset();
    Statement& bind(int index, int64_t value);
    Statement& bind(int index, const std::string& value);
    Statement& bindBlob(int index, const std::string& bytes);
    // Runs to the next row: true with a row to read, false when done.
    bool step();
    // For statements that return no rows.
    void run();

    int64_t columnInt(int column) const;
    std::string columnText(int column) const;
    bool columnIsNull(int column) const;

private:
    SqliteDb& db_;
    sqlite3_stmt* stmt_ = nullptr;
};

// Rolls back unless committed; keeps a failed load from leaving anything behind.
class Transaction {
public:
    explicit Transaction(SqliteDb& db);
    ~Transaction();
    void commit();

private:
    SqliteDb& db_;
    bool open_ = true;
};

}  // namespace store
