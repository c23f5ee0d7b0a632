// SQLite (https://sqlite.org/cintro.html) with owners for its handles. One thread for each database.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

// The text says which file, and why it cannot be read or written.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Database {
 public:
  enum class Mode { Read, Write };

  // Throws DatabaseError. With Mode::Write, a file that is not there is made, readable by owner and group.
  // `timeout`: how long to wait for others, of this process or another, that write, or read.
  Database(const std::string& path, Mode mode, std::chrono::milliseconds timeout);

  // Statements without parameters and results. Throws DatabaseError, as all else here.
  void Run(const std::string& statements);

  // The first column of the first row that `query` finds; 0 if it finds none.
  std::int64_t Number(const std::string& query);

  [[nodiscard]] sqlite3* Handle() const { return handle_.get(); }
  [[noreturn]] void Fail() const;
  [[noreturn]] void Fail(const std::string& why) const;

 private:
  [[noreturn]] void FailToOpen(Mode mode) const;

  const std::string path_;
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> handle_{nullptr, &sqlite3_close};
};

// One statement, run as often as one likes. Its database must outlive it.
class Statement {
 public:
  Statement(Database& database, const std::string& text);

  // Begins anew, with these values for its parameters.
  template <typename... Values>
  Statement& With(const Values&... values) {
    Reset();
    int parameter = 0;
    (Bind(++parameter, values), ...);
    return *this;
  }
  // True if it has come to a row.
  bool Step();
  // For those that give no rows.
  void Run() {
    while (Step()) {
    }
  }

  // Of the row; the first column is 0.
  [[nodiscard]] std::int64_t Number(int column) const;
  [[nodiscard]] std::string Text(int column) const;

 private:
  void Reset();
  void Bind(int parameter, std::int64_t value);
  void Bind(int parameter, const std::string& value);

  Database& database_;
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> handle_{nullptr, &sqlite3_finalize};
};

// What is written from here to Commit() is kept whole or, if that is not reached, not at all.
class Transaction {
 public:
  explicit Transaction(Database& database) : database_(database) { database_.Run("BEGIN IMMEDIATE"); }
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void Commit() { database_.Run("COMMIT"); }

 private:
  Database& database_;
};
