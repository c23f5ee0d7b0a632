#include "FleetRun.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "FleetSchedule.h"
#include "ReportLayouts.h"
#include "UGSDefs.h"

namespace {

using Seconds = std::chrono::duration<double>;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr auto kProgressPeriod = std::chrono::milliseconds(500);
constexpr double kLeastTimeout = 5;  // seconds, for a server that is busy
constexpr std::uint32_t kMaxCount = 50;
// A prime: instances of neighbouring seeds share no generator.
constexpr std::uint64_t kSeedStride = 1'000'003;

std::chrono::steady_clock::duration ToClock(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(Seconds(seconds));
}

std::string Hex(std::mt19937_64& random, std::size_t digits) {
  std::string text;
  while (text.size() < digits) text += fmt::format("{:016x}", random());
  return text.substr(0, digits);
}

int ParseCode(const std::string& text) {
  int code = 0;
  const char* end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, code);
  if (error != std::errc() || last != end)
    throw std::runtime_error("the server's answer is not a reply code");
  return code;
}

}  // namespace

FleetRun::Instance::Instance(const FleetOptions& options, std::uint32_t number)
    : random_(options.seed * kSeedStride + number), keys_(ugs::CountKeys(options.layout)) {
  usage_.id = fmt::format("sim-{}-{:05}", options.seed, number);
  usage_.container = Hex(random_, 64);
  usage_.layout = options.layout;
  for (int camera = 1; camera <= 4; ++camera) {
    usage_.cameras.push_back(fmt::format("rtsp://10.{}.{}.{}:554/stream{}", number >> 16, number >> 8 & 255,
                                         number & 255, camera));
  }
}

const ugs::Usage& FleetRun::Instance::NextUsage() {
  for (const std::string& key : keys_) usage_.counts[key] = static_cast<std::uint32_t>(random_() % kMaxCount);
  inFlight_.push_back(usage_.counts);
  return usage_;
}

// The server answers an instance's reports in order, so this is the answer to the oldest one.
void FleetRun::Instance::Answered(int code) {
  if (code == UGSDefs::Ok) counted_ = std::move(inFlight_.front());
  inFlight_.pop_front();
}

void FleetRun::Instance::AddTo(ugs::UsageCounts& sum) const {
  for (const ugs::Layout& layout : ugs::kLayouts) {
    for (const ugs::CountField& field : layout.addedCounts) {
      const auto count = counted_.find(field.key);
      if (count != counted_.end()) sum.*field.member += count->second;
    }
  }
}

FleetRun::CtrlC::CtrlC() {
  sigemptyset(&interrupt_);
  sigaddset(&interrupt_, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt_, nullptr);  // libzmq's threads block all signals by themselves
}

bool FleetRun::CtrlC::Pressed() {
  constexpr timespec now{};
  pressed_ = pressed_ || sigtimedwait(&interrupt_, nullptr, &now) == SIGINT;
  return pressed_;
}

FleetRun::FleetRun(const FleetOptions& options, double reportsPerSecond)
    : options_(options),
      rate_(reportsPerSecond),
      connectionCount_(options.connections == 0 ? options.instances
                                                : std::min(options.connections, options.instances)),
      sealer_(options.key),
      connections_(
          ugs::ParseAddress(options.server), connectionCount_,
          std::chrono::ceil<std::chrono::milliseconds>(Seconds(std::max(options.drain, kLeastTimeout)))),
      inFlight_(connectionCount_) {
  for (std::uint32_t i = 0; i < options.instances; ++i) instances_.emplace_back(options, i);
  record_.connections = connectionCount_;
}

FleetRecord FleetRun::Run() {
  const auto total = static_cast<std::size_t>(rate_ * options_.duration);
  FleetSchedule schedule(rate_, options_.random, options_.seed);
  start_ = Clock::now();
  while (record_.reports.size() < total && !ctrlC_.Pressed()) {
    const double due = schedule.Next();
    // In open loop: the next report waits for its time, never for an answer.
    TakeAnswersUntil(start_ + ToClock(due), [] { return false; });
    if (!ctrlC_.Pressed()) Send(due);
  }
  TakeAnswersUntil(Clock::now() + ToClock(options_.drain),
                   [this] { return answered_ == record_.reports.size(); });
  ShowProgress(true);
  for (const Instance& instance : instances_) instance.AddTo(record_.counted);
  return std::move(record_);
}

void FleetRun::Send(double due) {
  const auto number = static_cast<std::uint32_t>(record_.reports.size() % instances_.size());
  const std::uint32_t connection = number % connectionCount_;
  connections_.Send(connection, sealer_.Seal(ugs::WriteDocument(instances_[number].NextUsage())));
  inFlight_[connection].push_back(record_.reports.size());
  record_.reports.push_back({number, due, std::nullopt});
}

template <typename Condition>
void FleetRun::TakeAnswersUntil(Clock::time_point deadline, Condition done) {
  while (true) {
    while (const auto answer = connections_.Receive()) Take(*answer);
    ShowProgress(false);
    if (Clock::now() >= deadline || done() || ctrlC_.Pressed()) return;
    connections_.WaitForAnswer(std::min(deadline, Clock::now() + kProgressPeriod));
  }
}

// A connection's answers come in the order of its reports.
void FleetRun::Take(const FleetConnections::Answer& answer) {
  std::deque<std::size_t>& waiting = inFlight_.at(answer.connection);
  if (waiting.empty()) throw std::runtime_error("the server answered a report twice");
  FleetEntry& report = record_.reports[waiting.front()];
  waiting.pop_front();
  const Clock::duration elapsed = Clock::now() - start_;
  const int code = ParseCode(answer.text);
  report.answer = {code, Milliseconds(elapsed - ToClock(report.due)).count()};
  record_.seconds = Seconds(elapsed).count();
  instances_[report.instance].Answered(code);
  ++answered_;
}

void FleetRun::ShowProgress(bool last) {
  if (isatty(STDERR_FILENO) == 0 || (!last && Clock::now() < nextProgress_)) return;
  nextProgress_ = Clock::now() + kProgressPeriod;
  fmt::print(stderr, "\r{:7.1f} s  {} sent, {} answered {}", Seconds(Clock::now() - start_).count(),
             record_.reports.size(), answered_, last ? "\n" : "");
}
