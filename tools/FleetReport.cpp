#include "FleetReport.h"

#include <fmt/core.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "ReportLayouts.h"
#include "UGSDefs.h"

namespace {

constexpr auto kLogTimeout = std::chrono::seconds(15);
constexpr auto kLogRetry = std::chrono::milliseconds(500);
constexpr std::array kShares{0.5, 0.9, 0.99, 1.0};

// Nearest rank; the maximum for a share of 1.
double Percentile(const std::vector<double>& sorted, double share) {
  if (sorted.empty()) return 0;
  const auto rank = static_cast<std::size_t>(share * static_cast<double>(sorted.size()));
  return sorted[std::min(rank, sorted.size() - 1)];
}

// By what the server prints; the other counts are in no log.
FleetOutcome::LogVerdict CompareOnce(const ServerLog& log, const ugs::UsageCounts& expected) {
  const ServerLog::Findings findings = log.Read();
  FleetOutcome::LogVerdict verdict{findings.lastStatus.has_value(), findings.deletions, {}};
  const ugs::UsageCounts status = findings.lastStatus.value_or(ugs::UsageCounts());
  for (const ugs::CountField& field : ugs::kPrintedCounts) {
    const std::uint32_t shown = status.*field.member;
    const std::uint32_t sent = expected.*field.member;
    if (shown == sent) continue;
    verdict.agrees = false;
    verdict.differences.push_back(fmt::format("{}: server {}, fleet {}", field.label, shown, sent));
  }
  return verdict;
}

// The server may still be writing, and its log reaches the file only with the next flush.
FleetOutcome::LogVerdict CompareWithLog(const ServerLog& log, const ugs::UsageCounts& expected) {
  const auto deadline = std::chrono::steady_clock::now() + kLogTimeout;
  while (true) {
    FleetOutcome::LogVerdict verdict = CompareOnce(log, expected);
    if (verdict.agrees || std::chrono::steady_clock::now() >= deadline) return verdict;
    std::this_thread::sleep_for(kLogRetry);
  }
}

}  // namespace

bool FleetOutcome::IsGood() const {
  const auto counted = byCode.find(UGSDefs::Ok);
  return counted != byCode.end() && counted->second == reports && (!log || log->agrees);
}

FleetOutcome Evaluate(const FleetRecord& record, std::size_t instances, const std::optional<ServerLog>& log) {
  FleetOutcome outcome;
  outcome.reports = record.reports.size();
  outcome.instances = instances;
  outcome.connections = record.connections;
  std::vector<double> latencies;
  for (const FleetEntry& report : record.reports) {
    if (!report.answer) continue;
    ++outcome.byCode[report.answer->code];
    latencies.push_back(report.answer->latency);
  }
  std::ranges::sort(latencies);
  std::ranges::transform(kShares, outcome.latencies.begin(),
                         [&](double share) { return Percentile(latencies, share); });
  outcome.unanswered = record.reports.size() - latencies.size();
  if (!latencies.empty()) outcome.perSecond = static_cast<double>(latencies.size()) / record.seconds;
  if (log) outcome.log = CompareWithLog(*log, record.counted);
  return outcome;
}

void PrintText(const FleetOutcome& outcome) {
  fmt::print("reports     {} from {} instances on {} connections\n", outcome.reports, outcome.instances,
             outcome.connections);
  fmt::print("answered   ");
  for (const auto& [code, count] : outcome.byCode) fmt::print(" \"{}\" {};", code, count);
  fmt::print(" unanswered {}; {:.1f} per second\n", outcome.unanswered, outcome.perSecond);
  const auto& [p50, p90, p99, max] = outcome.latencies;
  fmt::print("latency ms  p50 {:.1f}  p90 {:.1f}  p99 {:.1f}  max {:.1f}\n", p50, p90, p99, max);
  if (!outcome.log) return;
  fmt::print("server log  {}; {} deletion lines\n", outcome.log->agrees ? "sums agree" : "SUMS DIFFER",
             outcome.log->deletions);
  for (const std::string& difference : outcome.log->differences) fmt::print("            {}\n", difference);
  if (!outcome.log->agrees) {
    fmt::print("            The server also counts every other instance that reported within 120 s.\n");
  }
}

void PrintJson(const FleetOutcome& outcome) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.SetMaxDecimalPlaces(3);
  const auto number = [&](const char* key, double value) {
    writer.Key(key);
    writer.Double(value);
  };
  const auto count = [&](const char* key, std::size_t value) {
    writer.Key(key);
    writer.Uint64(value);
  };
  writer.StartObject();
  count("reports", outcome.reports);
  writer.Key("answered");
  writer.StartObject();
  for (const auto& [code, answers] : outcome.byCode) count(std::to_string(code).c_str(), answers);
  writer.EndObject();
  count("unanswered", outcome.unanswered);
  number("per_second", outcome.perSecond);
  number("p50_ms", outcome.latencies[0]);
  number("p90_ms", outcome.latencies[1]);
  number("p99_ms", outcome.latencies[2]);
  number("max_ms", outcome.latencies[3]);
  if (outcome.log) {
    writer.Key("log_agrees");
    writer.Bool(outcome.log->agrees);
    count("deletions", outcome.log->deletions);
  }
  writer.EndObject();
  fmt::print("{}\n", buffer.GetString());
}

// What is no file, as a pipe or /dev/stdout, is written as it is: it cannot be replaced.
CsvFile::CsvFile(std::string name)
    : name_(std::move(name)),
      newName_(std::filesystem::exists(name_) && !std::filesystem::is_regular_file(name_) ? name_
                                                                                          : name_ + ".new"),
      file_(newName_) {
  if (!file_) throw std::runtime_error("cannot write " + newName_);
}

CsvFile::~CsvFile() {
  std::error_code ignored;
  if (newName_ != name_) std::filesystem::remove(newName_, ignored);  // unless it was renamed
}

void CsvFile::Write(const FleetRecord& record) {
  file_ << "report,instance,due_s,latency_ms,code\n";
  std::size_t number = 0;
  for (const FleetEntry& report : record.reports) {
    file_ << fmt::format("{},{},{:.6f},", number++, report.instance, report.due);
    file_ << (report.answer ? fmt::format("{:.3f},{}\n", report.answer->latency, report.answer->code)
                            : ",\n");
  }
  file_.close();
  if (!file_) throw std::runtime_error("cannot write " + newName_);
  std::filesystem::rename(newName_, name_);
}
