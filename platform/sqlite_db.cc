#include "sqlite_db.h"

namespace vela::platform {

SqliteDb::~SqliteDb() {
  if (db_ != nullptr) sqlite3_close_v2(db_);
}

std::string SqliteDb::LastError() const { return db_ != nullptr ? sqlite3_errmsg(db_) : "no database"; }

bool SqliteDb::OpenInMemory(std::string* error) {
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MEMORY | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(":memory:", &db_, flags, nullptr) != SQLITE_OK) {
    *error = "cannot open an in-memory database: " + LastError();
    return false;
  }
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
  return true;
}

bool SqliteDb::LoadImage(unsigned char* image, uint64_t size, std::string* error) {
  const unsigned flags = SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY;
  if (sqlite3_deserialize(db_, "main", image, static_cast<sqlite3_int64>(size), static_cast<sqlite3_int64>(size),
                          flags) != SQLITE_OK) {
    *error = "cannot load the database: " + LastError();
    return false;
  }
  return true;
}

bool SqliteDb::Execute(const char* sql, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  *error = message != nullptr ? message : LastError();
  sqlite3_free(message);
  return false;
}

bool SqliteDb::Prepare(const char* sql, SqliteStatement* statement, std::string* error) {
  if (statement->statement_ != nullptr) sqlite3_finalize(statement->statement_);
  statement->statement_ = nullptr;
  if (sqlite3_prepare_v2(db_, sql, -1, &statement->statement_, nullptr) == SQLITE_OK) return true;
  *error = LastError();
  return false;
}

unsigned char* SqliteDb::Serialize(int64_t* size, std::string* error) {
  sqlite3_int64 length = 0;
  unsigned char* bytes = sqlite3_serialize(db_, "main", &length, 0);
  if (bytes == nullptr) {
    *error = "cannot serialize the database: " + LastError();
    return nullptr;
  }
  *size = length;
  return bytes;
}

SqliteStatement::~SqliteStatement() {
  if (statement_ != nullptr) sqlite3_finalize(statement_);
}

void SqliteStatement::BindU64(int index, uint64_t value) {
  sqlite3_bind_int64(statement_, index, static_cast<sqlite3_int64>(value));
}

void SqliteStatement::BindText(int index, const std::string& text) {
  sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

int SqliteStatement::Step() { return sqlite3_step(statement_); }

void SqliteStatement::Reset() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

bool SqliteStatement::IsInteger(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_INTEGER; }

bool SqliteStatement::IsText(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_TEXT; }

uint64_t SqliteStatement::ColumnU64(int column) const {
  return static_cast<uint64_t>(sqlite3_column_int64(statement_, column));
}

std::string SqliteStatement::ColumnText(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  const int bytes = sqlite3_column_bytes(statement_, column);
  return text != nullptr ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(bytes)) : std::string();
}

}  // namespace vela::platform
