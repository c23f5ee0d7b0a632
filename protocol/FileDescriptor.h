#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

// Owns an open file. -1, as failed calls return it, is refused: then throws std::system_error with `what`.
class FileDescriptor {
 public:
  FileDescriptor(int number, const std::string& what) : number_(number) {
    if (number == -1) throw std::system_error(errno, std::generic_category(), what);
  }
  ~FileDescriptor() { close(number_); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  [[nodiscard]] int Number() const { return number_; }

 private:
  const int number_;
};
