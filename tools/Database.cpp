#include "Database.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// SQLite would make it readable by all, and gives its journal the mode of the file. One that is there is not
// opened: closing it would give up the locks that other connections of this process have on it (fcntl(2)).
void MakeFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  if (file != -1) close(file);  // if not, SQLite says why
}

}  // namespace

Database::Database(const std::string& path, Mode mode, std::chrono::milliseconds timeout) : path_(path) {
  if (mode == Mode::Write) MakeFile(path);
  sqlite3* handle = nullptr;
  const int flags = mode == Mode::Write ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
  const int result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
  handle_.reset(handle);
  if (result != SQLITE_OK) FailToOpen(mode);
  sqlite3_busy_timeout(handle, static_cast<int>(timeout.count()));
}

void Database::FailToOpen(Mode mode) const {
  const int error = handle_ == nullptr ? 0 : sqlite3_system_errno(Handle());
  if (error == 0) Fail();
  if (error == ENOENT && mode == Mode::Read) Fail("there is none; ugs page --history FILE makes it");
  Fail(std::strerror(error));
}

void Database::Run(const std::string& statements) {
  if (sqlite3_exec(Handle(), statements.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
}

std::int64_t Database::Number(const std::string& query) {
  Statement statement(*this, query);
  return statement.Step() ? statement.Number(0) : 0;
}

void Database::Fail() const {
  Fail(handle_ == nullptr ? "out of memory" : sqlite3_errmsg(Handle()));
}

void Database::Fail(const std::string& why) const {
  throw DatabaseError("the history in " + path_ + ": " + why);
}

Statement::Statement(Database& database, const std::string& text) : database_(database) {
  sqlite3_stmt* handle = nullptr;
  const auto size = static_cast<int>(text.size());
  if (sqlite3_prepare_v2(database.Handle(), text.data(), size, &handle, nullptr) != SQLITE_OK)
    database.Fail();
  handle_.reset(handle);
}

bool Statement::Step() {
  const int result = sqlite3_step(handle_.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) database_.Fail();
  return result == SQLITE_ROW;
}

std::int64_t Statement::Number(int column) const {
  return sqlite3_column_int64(handle_.get(), column);
}

std::string Statement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(handle_.get(), column);
  if (text == nullptr) return {};
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(handle_.get(), column));
  return {reinterpret_cast<const char*>(text), size};
}

void Statement::Reset() {
  sqlite3_reset(handle_.get());  // its result is that of the step before
}

void Statement::Bind(int parameter, std::int64_t value) {
  if (sqlite3_bind_int64(handle_.get(), parameter, value) != SQLITE_OK) database_.Fail();
}

void Statement::Bind(int parameter, const std::string& value) {
  // Copied: the caller's may be gone when the statement runs.
  if (sqlite3_bind_text64(handle_.get(), parameter, value.data(), value.size(), SQLITE_TRANSIENT,
                          SQLITE_UTF8) != SQLITE_OK) {
    database_.Fail();
  }
}

Transaction::~Transaction() {
  // Some errors have ended it already.
  if (sqlite3_get_autocommit(database_.Handle()) == 0) {
    sqlite3_exec(database_.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}
