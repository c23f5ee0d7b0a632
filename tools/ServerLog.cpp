#include "ServerLog.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

namespace {

constexpr int kOlderFiles = 5;
constexpr std::string_view kInUse = ": in use: ";

// The text behind "[time][level] "; empty for the blank line behind a text that ends in a newline.
std::string_view Message(std::string_view line) {
  const std::size_t end = line.find("] ");
  return line.starts_with('[') && end != std::string_view::npos ? line.substr(end + 2) : std::string_view();
}

// Takes a line of a status block: its label is one of the report's, its figure goes into `counts`.
bool TakeFigure(std::string_view message, UsageCounts& counts) {
  const std::size_t colon = message.find(kInUse);
  if (colon == std::string_view::npos) return false;
  const std::string_view label = message.substr(0, message.substr(0, colon).find(' '));
  const auto* row = std::ranges::find(kReportRows, label.substr(0, colon), &ReportRow::label);
  if (row == kReportRows.end()) return false;
  const std::string_view figure = message.substr(colon + kInUse.size());
  std::from_chars(figure.data(), figure.data() + figure.size(), counts.*row->member);
  return true;
}

class Reader {
 public:
  void Take(std::string_view message) {
    if (message.starts_with("==================== DETECT NEW REQUEST")) reported_ = true;
    if (message.starts_with("Deleting korvane ")) ++deletions_;
    if (message.starts_with("******** UGS version")) figures_ = 0;
    if (TakeFigure(message, counts_) && ++figures_ == kReportRows.size()) EndBlock();
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
  UsageCounts counts_;
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

std::vector<fs::path> ServerLog::FilesOldestFirst() const {
  std::vector<fs::path> files;
  for (int index = kOlderFiles; index > 0; --index) {
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
