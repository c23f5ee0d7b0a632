#include "ReporterLoop.h"

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "BlockedSignals.h"
#include "Secrets.h"

namespace ugs {
namespace {

using std::chrono::milliseconds;

// The bounds of the pause after a failure. With a time-out of 30 s and a period of up to 75 s, the second try
// comes within 118 s of the last report.
constexpr milliseconds kFirstPause = std::chrono::seconds(10);
constexpr milliseconds kLongestPause = std::chrono::seconds(100);

// One line carries some 80 reports a second. More of them help only when the server's answers are late.
constexpr std::size_t kMaxLines = 32;
constexpr std::chrono::minutes kIdle(2);

// A child that lives this long after a fork is not about to call exec.
constexpr std::chrono::seconds kAfterFork(1);

// After what should not happen, as memory that is used up.
constexpr std::chrono::seconds kAfterError(1);

milliseconds Allowed(milliseconds period) {
  constexpr milliseconds longest = kLongestPeriod;
  if (period >= ReporterLoop::shortestPeriod && period <= longest) return period;
  throw std::invalid_argument("a period of " + std::to_string(period.count()) + " ms is not from " +
                              std::to_string(ReporterLoop::shortestPeriod.count()) + " to " +
                              std::to_string(longest.count()));
}

milliseconds Between(milliseconds least, milliseconds most, std::minstd_rand& random) {
  return milliseconds(std::uniform_int_distribution(least.count(), most.count())(random));
}

std::string Text(std::exception_ptr thrown) {
  try {
    std::rethrow_exception(std::move(thrown));
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "an exception of an unknown type";
  }
}

}  // namespace

milliseconds PauseAfter(int failures, milliseconds period, std::minstd_rand& random) {
  milliseconds most = std::min(kFirstPause, period);
  if (failures == 1) return Between(milliseconds(0), most, random);
  for (int i = 1; i < failures && most < kLongestPause; ++i) most *= 2;
  most = std::min(most, kLongestPause);
  return Between(most / 2, most, random);
}

ReporterLoop::ReporterLoop(std::string_view server, const std::string& key, milliseconds period,
                           ReporterGroup::Listener listener, milliseconds replyTimeout, Reporter::Log log)
    : period_(Allowed(period)),
      listener_(std::move(listener)),
      log_(std::move(log)),
      destination_(server, key, replyTimeout) {}

void ReporterLoop::Start() {
  static const int watching = (WatchForks(), 0);
  static_cast<void>(watching);
  {
    const MutexLock lock(loopsMutex_);
    nextLoop_ = std::exchange(firstLoop_, this);
  }
  const BlockedSignals block;
  thread_ = std::thread([self = shared_from_this()] { self->Run(); });
}

ReporterLoop::~ReporterLoop() {
  const MutexLock lock(loopsMutex_);
  for (ReporterLoop** link = &firstLoop_; *link != nullptr; link = &(*link)->nextLoop_) {
    if (*link != this) continue;
    *link = nextLoop_;
    return;
  }
}

void ReporterLoop::JoinOrLeave() {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void ReporterLoop::Interrupt() {
  if (destination_.IsForeign()) return;  // the wake-up is the parent's, too
  stop_ = true;                          // before the wake-up, whose waiter looks at it
  wakeup_.Raise();
}

void ReporterLoop::Stop() {
  if (destination_.IsForeign()) {  // the thread is not here
    stop_ = true;
    const std::scoped_lock told(telling_);
    return;
  }
  Interrupt();
  JoinOrLeave();
}

std::optional<int> ReporterLoop::SignOffAll() {
  // First: a thread of a fork's child may have the id of the one that was left behind.
  destination_.RequireOwnProcess();
  if (thread_.get_id() == std::this_thread::get_id()) {
    throw std::logic_error("a reporter cannot sign off from its own source or listener");
  }
  Post([this] {
    for (auto& [name, instance] : instances_) SignOff(instance);
    finish_ = true;
  });
  JoinOrLeave();
  return lastCode_;
}

Counters ReporterLoop::GetCounters() const {
  destination_.RequireOwnProcess();
  return destination_.tally.Get();
}

// What callers ask for is done on the thread, so that no lock is held while the host's code runs.
void ReporterLoop::Post(std::function<void()> command) {
  destination_.RequireOwnProcess();
  {
    const MutexLock lock(mutex_);
    commands_.push_back(std::move(command));
  }
  wakeup_.Raise();
}

void ReporterLoop::Join(const std::string& name, Reporter::Source source) {
  Post([this, name, source = std::move(source)] {
    const auto [found, isNew] = instances_.try_emplace(name);
    Instance& instance = found->second;
    instance.source = source;
    if (!isNew) {
      instance.last = false;
      return ScheduleNow(instance);
    }
    instance.name = name;
    // A random moment of the first period: instances that start together do not report together.
    Schedule(instance, Clock::now() + Between(milliseconds(0), period_, random_));
  });
}

void ReporterLoop::ReportNow(const std::string& name) {
  PostTo(name, [this](Instance& instance) { ScheduleNow(instance); });
}

void ReporterLoop::SignOff(const std::string& name) {
  PostTo(name, [this](Instance& instance) { SignOff(instance); });
}

void ReporterLoop::Leave(const std::string& name) {
  PostTo(name, [this](Instance& instance) { Remove(instance); });
}

void ReporterLoop::PostTo(const std::string& name, std::function<void(Instance&)> command) {
  Post([this, name, command = std::move(command)] {
    if (const auto found = instances_.find(name); found != instances_.end()) command(found->second);
  });
}

void ReporterLoop::SignOff(Instance& instance) {
  instance.last = true;
  ScheduleNow(instance);
}

void ReporterLoop::Schedule(Instance& instance, Clock::time_point due) {
  schedule_.erase({instance.due, &instance});
  instance.due = due;
  schedule_.emplace(due, &instance);
}

void ReporterLoop::ScheduleNow(Instance& instance) {
  if (LineOf(instance) != nullptr) {
    instance.again = true;
  } else {
    Schedule(instance, Clock::now());
  }
}

ReporterLoop::Line* ReporterLoop::LineOf(const Instance& instance) const {
  for (const auto& line : lines_) {
    if (line->instance == &instance) return line.get();
  }
  return nullptr;
}

void ReporterLoop::Remove(Instance& instance) {
  if (Line* line = LineOf(instance); line != nullptr) line->instance = nullptr;
  schedule_.erase({instance.due, &instance});
  instances_.erase(instances_.find(instance.name));
}

void ReporterLoop::Run() {
  while (!stop_) {
    try {
      ObeyCommands();
      const bool isAllBegun = BeginWhatIsDue();
      if (stop_ || (finish_ && instances_.empty())) return;
      Wait(isAllBegun);
      for (std::size_t i = 0; i < lines_.size() && !stop_; ++i) {
        if (lines_[i]->channel.IsBusy()) Advance(*lines_[i]);
      }
      CloseIdleLines();
    } catch (const std::exception& error) {  // must not end the host
      Write(error.what());
      std::this_thread::sleep_for(kAfterError);
    }
  }
}

void ReporterLoop::ObeyCommands() {
  wakeup_.Clear();  // before the look: what comes after it raises again
  std::vector<std::function<void()>> commands;
  {
    const MutexLock lock(mutex_);
    commands.swap(commands_);
  }
  for (const std::function<void()>& command : commands) command();
}

bool ReporterLoop::BeginWhatIsDue() {
  while (!stop_ && !schedule_.empty() && schedule_.begin()->first <= Clock::now()) {
    Line* line = FreeLine();
    if (line == nullptr) return false;
    Instance& instance = *schedule_.begin()->second;
    schedule_.erase(schedule_.begin());
    Begin(instance, *line);
  }
  return true;
}

// A connected line if there is one. Only one at a time tries to connect, so that a server that is away costs
// one connection.
ReporterLoop::Line* ReporterLoop::FreeLine() {
  Line* idle = nullptr;
  bool isConnecting = false;
  for (const auto& line : lines_) {
    const Channel& channel = line->channel;
    if (!channel.IsBusy() && channel.IsConnected()) return line.get();
    if (!channel.IsBusy()) idle = line.get();
    isConnecting = isConnecting || (channel.IsBusy() && !channel.IsConnected());
  }
  if (isConnecting || idle != nullptr) return isConnecting ? nullptr : idle;
  if (lines_.size() == kMaxLines) return nullptr;
  return lines_.emplace_back(std::make_unique<Line>(destination_)).get();
}

void ReporterLoop::Begin(Instance& instance, Line& line) {
  std::string envelope;
  if (const std::optional<Outcome> problem = Seal(instance, envelope)) return Finish(instance, *problem);
  line.instance = &instance;
  line.channel.Begin(std::move(envelope));
  Advance(line);
}

// Nothing that the host's code throws may end the host from our thread.
std::optional<Outcome> ReporterLoop::Seal(const Instance& instance, std::string& envelope) const {
  std::string document;
  const WipeOnExit wipe(document);
  try {
    Usage usage = instance.source();
    if (instance.last) usage.counts.clear();
    document = WriteDocument(usage);
  } catch (...) {
    return Outcome{std::nullopt, ErrorKind::BadUsage, Text(std::current_exception())};
  }
  try {
    envelope = destination_.Seal(document);
    return std::nullopt;
  } catch (const std::exception& error) {
    return Outcome{std::nullopt, ErrorKind::CannotSeal, error.what()};
  }
}

void ReporterLoop::Wait(bool isAllBegun) {
  Clock::time_point until = Clock::time_point::max();
  if (isAllBegun && !schedule_.empty()) until = schedule_.begin()->first;
  std::vector<zmq_pollitem_t> items{{nullptr, wakeup_.Descriptor(), ZMQ_POLLIN, 0}};
  for (const auto& line : lines_) {
    if (!line->channel.IsBusy()) continue;
    line->channel.AddPollItems(items);
    until = std::min(until, line->channel.Deadline());
  }
  PollUntil(items, until);
}

void ReporterLoop::Advance(Line& line) {
  const std::optional<Outcome> outcome = line.channel.Advance();
  if (!outcome) return;
  line.idleSince = Clock::now();
  if (Instance* instance = std::exchange(line.instance, nullptr)) Finish(*instance, *outcome);
  if (outcome->kind == ErrorKind::NotConnected || outcome->kind == ErrorKind::NoSuchHost) {
    FailWhatIsDue(*outcome);
  }
}

// Those that waited for a line hear why, too: a server that is away for one is away for all.
void ReporterLoop::FailWhatIsDue(const Outcome& outcome) {
  const Clock::time_point now = Clock::now();
  while (!stop_ && !schedule_.empty() && schedule_.begin()->first <= now) {
    Instance& instance = *schedule_.begin()->second;
    schedule_.erase(schedule_.begin());
    Finish(instance, outcome);
  }
}

void ReporterLoop::CloseIdleLines() {
  const Clock::time_point longAgo = Clock::now() - kIdle;
  while (lines_.size() > 1 && !lines_.back()->channel.IsBusy() && lines_.back()->idleSince < longAgo) {
    lines_.pop_back();
  }
}

void ReporterLoop::Finish(Instance& instance, const Outcome& outcome) {
  Tell(instance.name, outcome);
  if (stop_) return;  // by the listener
  const Clock::time_point now = Clock::now();
  instance.failures = outcome.code ? 0 : instance.failures + 1;
  if (std::exchange(instance.again, false)) return Schedule(instance, now);
  if (instance.last) {
    lastCode_ = outcome.code;
    return Remove(instance);
  }
  if (instance.failures > 0) return Schedule(instance, now + PauseAfter(instance.failures, period_, random_));
  // From the time it was due, so that delays do not add up.
  const auto periods = std::max<Clock::rep>((now - instance.due) / period_, 0) + 1;
  Schedule(instance, instance.due + periods * period_);
}

void ReporterLoop::Tell(const std::string& name, const Outcome& outcome) const {
  if (outcome.kind != ErrorKind::None) Write(outcome.text);
  if (!listener_) return;
  try {
    listener_(name, outcome);
  } catch (...) {
    Write("the listener threw: " + Text(std::current_exception()));
  }
}

void ReporterLoop::Write(const std::string& line) const {
  if (!log_) return;
  try {
    log_(line);
  } catch (...) {
    return;  // there is nobody left to tell
  }
}

// A host that becomes a daemon after it made its reporter would be silent for ever: the thread stays behind
// in the parent. So the child tells its listener, unless it is one that only calls exec.
void ReporterLoop::WatchForks() {
  pthread_atfork(&BeforeFork, &AfterFork, &AfterForkInChild);
}

void ReporterLoop::AfterForkInChild() {
  for (ReporterLoop* loop = firstLoop_; loop != nullptr; loop = loop->nextLoop_) loop->TellOfFork();
  loopsMutex_.Unlock();
}

void ReporterLoop::TellOfFork() {
  try {
    const BlockedSignals block;
    std::thread([self = shared_from_this()] {
      std::this_thread::sleep_for(kAfterFork);
      const std::scoped_lock lock(self->telling_);
      if (self->stop_ || self->finish_) return;
      self->Tell({}, {std::nullopt, ErrorKind::BadUsage, kForked});
    }).detach();
  } catch (...) {
    return;  // a child of the host's must not fail for us
  }
}

}  // namespace ugs
