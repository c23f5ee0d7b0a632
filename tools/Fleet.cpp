#include "Fleet.h"

#include <fmt/core.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "Sealer.h"
#include "ServerLog.h"
#include "UgsClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr auto kProgressPeriod = std::chrono::milliseconds(500);
constexpr auto kConnectPatience = std::chrono::seconds(60);
constexpr auto kLogPatience = std::chrono::seconds(15);  // the server flushes its log every 5 s
constexpr std::uint32_t kConnectBatch = 100;             // what a listener's backlog takes at once
constexpr std::uint32_t kMostOfACount = 50;
constexpr std::array kPercentiles{0.5, 0.9, 0.99, 1.0};

struct Sent {
  std::uint32_t instance;
  Clock::time_point due;
  std::optional<double> latency;  // milliseconds; nothing while unanswered
  int code = -1;
};

std::string Hex(std::mt19937_64& random, int digits) {
  std::string text;
  while (static_cast<int>(text.size()) < digits) text += fmt::format("{:016x}", random());
  return text.substr(0, static_cast<std::size_t>(digits));
}

// One instance: its identity never changes, its counts do with every report.
class Instance {
 public:
  Instance(const FleetOptions& options, std::uint32_t number)
      : random_(options.seed * 1'000'003ULL + number) {
    usage_.id = fmt::format("sim-{}-{:05}", options.seed, number);
    usage_.container = Hex(random_, 64);
    usage_.layout = options.layout;
    for (int camera = 1; camera <= 4; ++camera) {
      usage_.cameras.push_back(fmt::format("rtsp://10.{}.{}.{}:554/stream{}", number >> 16, number >> 8 & 255,
                                           number & 255, camera));
    }
    keys_ = ugs::CountKeys(options.layout);
  }

  const ugs::Usage& NextUsage() {
    for (const std::string& key : keys_)
      usage_.counts[key] = static_cast<std::uint32_t>(random_() % kMostOfACount);
    sent_.push_back(usage_.counts);
    return usage_;
  }

  // The server answers an instance's reports in order, so the oldest one is the one that counts from now on.
  void Answered(int code) {
    if (code == 0) counted_ = std::move(sent_.front());
    sent_.pop_front();
  }

  void AddTo(UsageCounts& sum) const {
    for (const Layout& layout : kLayouts) {
      for (const CountField& field : layout.addedCounts) {
        if (const auto count = counted_.find(field.key); count != counted_.end())
          sum.*field.member += count->second;
      }
    }
  }

 private:
  using Counts = std::map<std::string, std::uint32_t>;

  std::mt19937_64 random_;
  ugs::Usage usage_;
  std::vector<std::string> keys_;
  std::deque<Counts> sent_;
  Counts counted_;
};

// All connections of the fleet in one ROUTER socket, which tells them apart by the names it gives them. The
// server sees a DEALER-like peer behind each; a socket per connection would take two descriptors for each.
class Connections {
 public:
  Connections(const ugs::Address& address, std::uint32_t count)
      : socket_(context_, zmq::socket_type::router), monitor_(context_, zmq::socket_type::pair) {
    RaiseOpenFileLimit(count);
    socket_.set(zmq::sockopt::linger, 0);
    socket_.set(zmq::sockopt::sndhwm, 0);
    socket_.set(zmq::sockopt::rcvhwm, 0);
    socket_.set(zmq::sockopt::router_mandatory, true);  // an error for a name we never gave
    const char* events = "inproc://events";
    if (zmq_socket_monitor(socket_.handle(), events, ZMQ_EVENT_HANDSHAKE_SUCCEEDED) != 0)
      throw zmq::error_t();
    monitor_.connect(events);
    const std::string endpoint = fmt::format("tcp://{}:{}", address.host, address.port);
    for (std::uint32_t i = 0; i < count; ++i) {
      socket_.set(zmq::sockopt::connect_routing_id, Name(i));
      socket_.connect(endpoint);
      if ((i + 1) % kConnectBatch == 0 || i + 1 == count) AwaitConnected(i + 1, endpoint);
    }
  }

  void Send(std::uint32_t connection, const std::string& payload) {
    socket_.send(zmq::buffer(Name(connection)), zmq::send_flags::sndmore);
    socket_.send(zmq::buffer(payload), zmq::send_flags::none);
  }

  struct Answer {
    std::uint32_t connection;
    std::string text;
  };
  std::optional<Answer> Receive() {
    zmq::message_t name;
    zmq::message_t text;
    if (!socket_.recv(name, zmq::recv_flags::dontwait) || !socket_.recv(text)) return std::nullopt;
    return Answer{static_cast<std::uint32_t>(std::stoul(name.to_string())), text.to_string()};
  }

  void WaitForAnswer(Clock::time_point until) {
    // Rounded down, so that the last millisecond is spent looking: a late report would look like a slow
    // answer.
    const auto left = std::chrono::floor<std::chrono::milliseconds>(until - Clock::now());
    std::array<zmq::pollitem_t, 1> items{{{socket_.handle(), 0, ZMQ_POLLIN, 0}}};
    zmq::poll(items, std::max(left, std::chrono::milliseconds(0)));
  }

 private:
  static std::string Name(std::uint32_t connection) { return std::to_string(connection); }

  static void RaiseOpenFileLimit(std::uint32_t connections) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < connections + 64ULL) {
      throw std::runtime_error(
          fmt::format("{} connections need more open files than the limit of {} (ulimit -Hn)", connections,
                      limit.rlim_max));
    }
  }

  void AwaitConnected(std::uint32_t count, const std::string& endpoint) {
    monitor_.set(zmq::sockopt::rcvtimeo,
                 static_cast<int>(std::chrono::milliseconds(kConnectPatience).count()));
    for (; connected_ < count; ++connected_) {
      zmq::message_t event;
      zmq::message_t source;
      if (!monitor_.recv(event) || !monitor_.recv(source)) {
        throw std::runtime_error(fmt::format("only {} connections to {} came about", connected_, endpoint));
      }
    }
  }

  zmq::context_t context_;
  zmq::socket_t socket_;
  zmq::socket_t monitor_;
  std::uint32_t connected_ = 0;
};

double Percentile(const std::vector<double>& sorted, double share) {
  if (sorted.empty()) return 0;
  const auto rank = static_cast<std::size_t>(share * static_cast<double>(sorted.size()));
  return sorted[std::min(rank, sorted.size() - 1)];
}

class Fleet {
 public:
  explicit Fleet(const FleetOptions& options)
      : options_(options),
        rate_(options.rate > 0 ? options.rate : options.instances / options.period),
        sealer_(options.key),
        connections_(ugs::ParseAddress(options.server), ConnectionCount()),
        underWay_(ConnectionCount()) {
    for (std::uint32_t i = 0; i < options.instances; ++i) instances_.emplace_back(options, i);
    if (!options.log.empty()) log_.emplace(options.log);
  }

  void Run() {
    std::mt19937_64 random(options_.seed);
    std::exponential_distribution<double> gap(rate_);
    const auto total = static_cast<std::size_t>(rate_ * options_.duration);
    start_ = Clock::now();
    double dueSeconds = 0;
    while (sent_.size() < total) {
      const Clock::time_point due = start_ + std::chrono::duration_cast<Clock::duration>(Seconds(dueSeconds));
      TakeAnswersUntil(due, [] { return false; });
      SendReport(due);
      dueSeconds = options_.random ? dueSeconds + gap(random) : static_cast<double>(sent_.size()) / rate_;
    }
    const auto patience = std::chrono::duration_cast<Clock::duration>(Seconds(options_.patience));
    TakeAnswersUntil(Clock::now() + patience, [this] { return answered_ == sent_.size(); });
    ShowProgress(true);
  }

  // Prints the outcome; true if it is a good one.
  [[nodiscard]] bool Conclude() const {
    std::vector<double> latencies;
    Outcome outcome;
    for (const Sent& report : sent_) {
      if (!report.latency) continue;
      ++outcome.byCode[report.code];
      latencies.push_back(*report.latency);
    }
    std::ranges::sort(latencies);
    outcome.unanswered = sent_.size() - latencies.size();
    outcome.perSecond = static_cast<double>(latencies.size()) / lastAnswer_.count();
    for (std::size_t i = 0; i < kPercentiles.size(); ++i) {
      outcome.percentiles[i] = Percentile(latencies, kPercentiles[i]);
    }
    outcome.log = CompareWithLog();
    options_.json ? PrintJson(outcome) : PrintText(outcome);
    return outcome.byCode[0] == sent_.size() && outcome.log.agrees;
  }

  void WriteCsv() const {
    std::ofstream file(options_.csv);
    file << "report,instance,due_s,latency_ms,code\n";
    for (std::size_t i = 0; i < sent_.size(); ++i) {
      const Sent& report = sent_[i];
      file << fmt::format("{},{},{:.6f},{},{}\n", i, report.instance, Seconds(report.due - start_).count(),
                          report.latency ? fmt::format("{:.3f}", *report.latency) : "",
                          report.latency ? fmt::format("{}", report.code) : "");
    }
    if (!file.flush()) throw std::runtime_error("cannot write " + options_.csv);
  }

 private:
  struct LogVerdict {
    bool agrees = true;
    std::size_t deletions = 0;
    std::vector<std::string> differences;
  };

  struct Outcome {
    std::map<int, std::size_t> byCode;
    std::size_t unanswered = 0;
    double perSecond = 0;
    std::array<double, kPercentiles.size()> percentiles{};  // milliseconds
    LogVerdict log;
  };

  void PrintText(const Outcome& outcome) const {
    fmt::print("reports     {} from {} instances on {} connections\n", sent_.size(), instances_.size(),
               underWay_.size());
    fmt::print("answered   ");
    for (const auto& [code, count] : outcome.byCode) fmt::print(" \"{}\" {};", code, count);
    fmt::print(" unanswered {}; {:.1f} per second\n", outcome.unanswered, outcome.perSecond);
    const auto& [p50, p90, p99, max] = outcome.percentiles;
    fmt::print("latency ms  p50 {:.1f}  p90 {:.1f}  p99 {:.1f}  max {:.1f}\n", p50, p90, p99, max);
    if (!log_) return;
    fmt::print("server log  {}; {} deletion lines\n", outcome.log.agrees ? "sums agree" : "SUMS DIFFER",
               outcome.log.deletions);
    for (const std::string& difference : outcome.log.differences) fmt::print("            {}\n", difference);
    if (!outcome.log.agrees)
      fmt::print("            The server also counts every other instance that reported within 120 s.\n");
  }

  void PrintJson(const Outcome& outcome) const {
    std::string codes;
    for (const auto& [code, count] : outcome.byCode) {
      codes += fmt::format("{}\"{}\":{}", codes.empty() ? "" : ",", code, count);
    }
    const auto& [p50, p90, p99, max] = outcome.percentiles;
    fmt::print(R"({{"reports":{},"answered":{{{}}},"unanswered":{},"per_second":{:.2f},)", sent_.size(),
               codes, outcome.unanswered, outcome.perSecond);
    fmt::print(R"("p50_ms":{:.3f},"p90_ms":{:.3f},"p99_ms":{:.3f},"max_ms":{:.3f},)", p50, p90, p99, max);
    fmt::print(R"("log_agrees":{},"deletions":{}}})"
               "\n",
               outcome.log.agrees, outcome.log.deletions);
  }

  [[nodiscard]] std::uint32_t ConnectionCount() const {
    return options_.connections == 0 ? options_.instances
                                     : std::min(options_.connections, options_.instances);
  }

  void SendReport(Clock::time_point due) {
    const auto number = static_cast<std::uint32_t>(sent_.size() % instances_.size());
    const std::uint32_t connection = number % static_cast<std::uint32_t>(underWay_.size());
    connections_.Send(connection, sealer_.Seal(ugs::WriteDocument(instances_[number].NextUsage())));
    underWay_[connection].push_back(sent_.size());
    sent_.push_back({number, due, std::nullopt});
  }

  template <typename Condition>
  void TakeAnswersUntil(Clock::time_point deadline, Condition done) {
    while (true) {
      while (const auto answer = connections_.Receive()) Take(*answer);
      ShowProgress(false);
      if (Clock::now() >= deadline || done()) return;
      connections_.WaitForAnswer(std::min(deadline, Clock::now() + kProgressPeriod));
    }
  }

  void Take(const Connections::Answer& answer) {
    std::deque<std::size_t>& waiting = underWay_.at(answer.connection);
    if (waiting.empty()) throw std::runtime_error("the server answered a report twice");
    Sent& report = sent_[waiting.front()];
    waiting.pop_front();
    report.code = std::stoi(answer.text);
    report.latency = Milliseconds(Clock::now() - report.due).count();
    lastAnswer_ = Clock::now() - start_;
    instances_[report.instance].Answered(report.code);
    ++answered_;
  }

  void ShowProgress(bool last) {
    if (isatty(STDERR_FILENO) == 0 || (!last && Clock::now() < nextProgress_)) return;
    nextProgress_ = Clock::now() + kProgressPeriod;
    fmt::print(stderr, "\r{:7.1f} s  {} sent, {} answered {}", Seconds(Clock::now() - start_).count(),
               sent_.size(), answered_, last ? "\n" : "");
  }

  [[nodiscard]] LogVerdict CompareWithLog() const {
    LogVerdict verdict;
    if (!log_) return verdict;
    UsageCounts sum;
    for (const Instance& instance : instances_) instance.AddTo(sum);
    const auto deadline = Clock::now() + kLogPatience;
    do {
      const ServerLog::Findings findings = log_->Read();
      verdict = {findings.lastStatus.has_value(), findings.deletions, {}};
      const UsageCounts status = findings.lastStatus.value_or(UsageCounts());
      for (const ReportRow& row : kReportRows) {
        if (status.*row.member == sum.*row.member) continue;
        verdict.agrees = false;
        verdict.differences.push_back(
            fmt::format("{}: server {}, fleet {}", row.label, status.*row.member, sum.*row.member));
      }
      if (!verdict.agrees) std::this_thread::sleep_for(kProgressPeriod);
    } while (!verdict.agrees && Clock::now() < deadline);
    return verdict;
  }

  const FleetOptions& options_;
  const double rate_;
  const ugs::Sealer sealer_;
  Connections connections_;
  std::vector<Instance> instances_;
  std::optional<ServerLog> log_;
  Clock::time_point start_;
  Clock::time_point nextProgress_;
  Seconds lastAnswer_{1};
  std::vector<Sent> sent_;
  std::vector<std::deque<std::size_t>> underWay_;  // by connection: reports not yet answered, oldest first
  std::size_t answered_ = 0;
};

}  // namespace

bool RunFleet(const FleetOptions& options) {
  if ((options.rate > 0) == (options.period > 0))
    throw std::invalid_argument("give either --rate or --period");
  Fleet fleet(options);
  fleet.Run();
  if (!options.csv.empty()) fleet.WriteCsv();
  return fleet.Conclude();
}
