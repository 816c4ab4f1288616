// Private to the platform library: an SQLite connection and its prepared
// statements, closed when they go away. Errors are returned, never thrown.
#ifndef VELA_PLATFORM_SQLITE_DB_H_
#define VELA_PLATFORM_SQLITE_DB_H_

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace vela::platform {

class SqliteStatement;

class SqliteDb {
 public:
  SqliteDb() = default;
  ~SqliteDb();
  SqliteDb(const SqliteDb&) = delete;
  SqliteDb& operator=(const SqliteDb&) = delete;

  // An empty database in memory, with the settings for files nobody else
  // wrote: no extension loading, defensive mode, no trusted schema.
  bool OpenInMemory(std::string* error);
  // Replaces the database with `size` bytes of a database file, read-only.
  // Takes `image` (from sqlite3_malloc64) in every case.
  bool LoadImage(unsigned char* image, uint64_t size, std::string* error);
  // Runs statements that return no rows.
  bool Execute(const char* sql, std::string* error);
  bool Prepare(const char* sql, SqliteStatement* statement, std::string* error);
  // The database as a file's bytes, owned by SQLite (sqlite3_free), or
  // null.
  unsigned char* Serialize(int64_t* size, std::string* error);

  sqlite3* Handle() const { return db_; }
  std::string LastError() const;

 private:
  sqlite3* db_ = nullptr;
};

class SqliteStatement {
 public:
  SqliteStatement() = default;
  ~SqliteStatement();
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  // 1-based, as SQLite counts parameters. Unsigned 64-bit numbers are
  // stored as the signed number with the same bits.
  void BindU64(int index, uint64_t value);
  void BindText(int index, const std::string& text);
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step();
  // Ready for new bindings and another Step().
  void Reset();

  // 0-based, as SQLite counts columns.
  bool IsInteger(int column) const;
  bool IsText(int column) const;
  uint64_t ColumnU64(int column) const;
  std::string ColumnText(int column) const;

 private:
  friend class SqliteDb;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SQLITE_DB_H_
