#include "ServerLog.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "LogTexts.h"
#include "ReportLayouts.h"

namespace fs = std::filesystem;

namespace {

// The text after "[time][level] "; empty for the blank line after a text that ends in a newline.
std::string_view Message(std::string_view line) {
  const std::size_t end = line.find("] ");
  return line.starts_with('[') && end != std::string_view::npos ? line.substr(end + 2) : std::string_view();
}

// Takes a line of a status block: its label is one of the report's, its figure goes into `counts`.
bool TakeFigure(std::string_view message, ugs::UsageCounts& counts) {
  const std::size_t mark = message.find(ugs::kInUseMark);
  if (mark == std::string_view::npos) return false;
  std::string_view label = message.substr(0, mark);
  label = label.substr(0, label.find_last_not_of(' ') + 1);
  const auto field = std::ranges::find(ugs::kPrintedCounts, label, &ugs::CountField::label);
  if (field == ugs::kPrintedCounts.end()) return false;
  const std::string_view figure = message.substr(mark + ugs::kInUseMark.size());
  std::from_chars(figure.data(), figure.data() + figure.size(), counts.*field->member);
  return true;
}

// Reads lines in the order in which the server wrote them.
class Reader {
 public:
  void Take(std::string_view message) {
    if (message.starts_with(ugs::Beginning(ugs::kNewRequestText))) reported_ = true;
    if (message.starts_with(ugs::Beginning(ugs::kExpiredText))) ++deletions_;
    if (message.starts_with(ugs::Beginning(ugs::kStatusHeaderText))) figures_ = 0;
    if (TakeFigure(message, counts_) && ++figures_ == ugs::kPrintedCounts.size()) EndBlock();
  }
  [[nodiscard]] const ServerLog::Findings& Findings() const { return findings_; }

 private:
  // A block without a report before it shows what has expired since the last one.
  void EndBlock() {
    if (!reported_) return;
    findings_ = {counts_, findings_.deletions + deletions_};
    reported_ = false;
    deletions_ = 0;
  }

  ServerLog::Findings findings_;
  ugs::UsageCounts counts_;
  std::size_t figures_ = 0;
  bool reported_ = false;      // since the last block that counts
  std::size_t deletions_ = 0;  // since then
};

}  // namespace

ServerLog::ServerLog(fs::path file) : file_(std::move(file)) {
  struct stat status {};
  if (stat(file_.c_str(), &status) != 0) throw std::runtime_error("cannot read " + file_.string());
  startFile_ = status.st_ino;
  startOffset_ = status.st_size;
}

// All names that there may be, whether or not there are such files yet.
std::vector<fs::path> ServerLog::FilesOldestFirst() const {
  std::vector<fs::path> files;
  for (std::size_t index = ugs::kOlderLogFiles; index > 0; --index) {
    fs::path older = file_;
    older.replace_extension(std::to_string(index) + file_.extension().string());
    files.push_back(older);
  }
  files.push_back(file_);
  return files;
}

ServerLog::Findings ServerLog::Read() const {
  const std::vector<fs::path> files = FilesOldestFirst();
  const auto isStart = [this](const fs::path& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && status.st_ino == startFile_;
  };
  // If the file that was active at the start has been rotated away, all that is left is newer.
  auto file = std::ranges::find_if(files, isStart);
  std::streamoff offset = file == files.end() ? 0 : startOffset_;
  if (file == files.end()) file = files.begin();
  Reader reader;
  for (; file != files.end(); ++file, offset = 0) {
    std::ifstream stream(*file);
    stream.seekg(offset);
    for (std::string line; std::getline(stream, line);) reader.Take(Message(line));
  }
  return reader.Findings();
}
