#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include "BlockedSignals.h"
#include "UgsClient.h"
#include "Wakeup.h"

namespace ugs {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLongestPeriod = std::chrono::hours(24 * 365);  // far from where a clock overflows

// The bounds of the pause after a failure. With a time-out of 30 s and a period of up to 75 s, the second try
// comes within 118 s of the last report.
constexpr milliseconds kFirstPause = std::chrono::seconds(10);
constexpr milliseconds kLongestPause = std::chrono::seconds(100);

constexpr const char* kForked = "this reporter was made before a fork: make one in the process that uses it";

// A child that lives this long after a fork is not about to call exec.
constexpr std::chrono::seconds kAfterFork(1);

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

// What the reporter's thread and its owner share. The thread holds it, too, so it outlives a reporter that
// its own listener destroys.
class __attribute__((visibility("hidden"))) Reporter::Loop : public std::enable_shared_from_this<Loop> {
 public:
  Loop(Client client, Source source, milliseconds period, OutcomeListener listener, Log log)
      : client_(std::move(client)),
        source_(std::move(source)),
        period_(std::min<milliseconds>(period, kLongestPeriod)),
        listener_(std::move(listener)),
        log_(std::move(log)) {
    if (period_ <= milliseconds(0)) throw std::invalid_argument("the period must be positive");
  }
  ~Loop();

  void Start();
  void Stop();
  void ReportNow() const;
  std::optional<int> SignOff();
  [[nodiscard]] Counters GetCounters() const { return client_.GetCounters(); }

 private:
  void Run();
  [[nodiscard]] bool SleepUntil(Clock::time_point due);
  Outcome ReportOnce(bool last);
  void Tell(const Outcome& outcome);
  void Write(const std::string& line) const;
  milliseconds PauseAfter(int failures);
  milliseconds Between(milliseconds least, milliseconds most);
  void JoinOrLeave();

  // In a child of the process that made it, the thread is missing, and what it held keeps this alive.
  [[nodiscard]] bool IsForeign() const { return getpid() != process_; }
  static void WatchForks();
  void TellOfFork();

  Client client_;  // the thread's, but for Interrupt and GetCounters
  const Source source_;
  const milliseconds period_;
  const OutcomeListener listener_;
  const Log log_;
  const pid_t process_ = getpid();
  Wakeup wakeup_;                 // ends a sleep
  std::recursive_mutex telling_;  // in a child of a fork: held while it calls the listener
  std::atomic<bool> stop_ = false;
  std::atomic<bool> signOff_ = false;
  std::optional<int> signOffCode_;  // the thread's until it is joined
  std::minstd_rand random_{std::random_device{}()};

  static inline std::mutex loopsMutex_;  // guards the next two
  static inline Loop* firstLoop_ = nullptr;
  Loop* nextLoop_ = nullptr;

  std::thread thread_;  // the owner's; or its own, if a listener destroys the reporter
};

void Reporter::Loop::Start() {
  static const int watching = (WatchForks(), 0);
  static_cast<void>(watching);
  {
    const std::scoped_lock lock(loopsMutex_);
    nextLoop_ = std::exchange(firstLoop_, this);
  }
  const BlockedSignals block;
  thread_ = std::thread([self = shared_from_this()] { self->Run(); });
}

Reporter::Loop::~Loop() {
  const std::scoped_lock lock(loopsMutex_);
  for (Loop** link = &firstLoop_; *link != nullptr; link = &(*link)->nextLoop_) {
    if (*link != this) continue;
    *link = nextLoop_;
    return;
  }
}

void Reporter::Loop::JoinOrLeave() {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void Reporter::Loop::Stop() {
  stop_ = true;       // before the wake-ups, whose waiters look at it
  if (IsForeign()) {  // the wake-ups are the parent's, too, and the thread is not here
    const std::scoped_lock told(telling_);
    return;
  }
  wakeup_.Raise();
  client_.Interrupt();
  JoinOrLeave();
}

void Reporter::Loop::ReportNow() const {
  if (IsForeign()) throw std::runtime_error(kForked);
  wakeup_.Raise();
}

std::optional<int> Reporter::Loop::SignOff() {
  if (thread_.get_id() == std::this_thread::get_id()) {
    throw std::logic_error("a reporter cannot sign off from its own source or listener");
  }
  signOff_ = true;
  ReportNow();
  JoinOrLeave();
  return signOffCode_;
}

// False if it was woken.
bool Reporter::Loop::SleepUntil(Clock::time_point due) {
  constexpr milliseconds longest = std::chrono::hours(1);  // poll(2) counts in 32 bits
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(due - Clock::now());
    pollfd wakeup{wakeup_.Descriptor(), POLLIN, 0};
    const int ready = poll(&wakeup, 1, static_cast<int>(std::clamp(left, milliseconds(0), longest).count()));
    if (ready > 0) {
      wakeup_.Clear();
      return false;
    }
    if (ready == 0 && left <= longest) return true;
  }
}

void Reporter::Loop::Run() {
  // A random moment of the first period: instances that start together do not report together.
  Clock::time_point due = Clock::now() + Between(milliseconds(0), period_);
  int failures = 0;
  while (true) {
    const bool slept = SleepUntil(due);
    if (stop_) return;
    const bool last = signOff_;
    const Outcome outcome = ReportOnce(last);
    if (stop_) return;
    Tell(outcome);
    if (stop_) return;  // by its listener
    if (last) {
      signOffCode_ = outcome.code;
      return;
    }
    failures = outcome.code ? 0 : failures + 1;
    if (failures > 0) {
      due = Clock::now() + PauseAfter(failures);
    } else if (!slept) {
      due = Clock::now() + period_;
    } else {
      while (due <= Clock::now()) due += period_;  // from the time it was due, so that delays do not add up
    }
  }
}

// Random, lest all instances of a server that was restarted come back at one moment.
milliseconds Reporter::Loop::PauseAfter(int failures) {
  milliseconds most = std::min(kFirstPause, period_);
  if (failures == 1) return Between(milliseconds(0), most);
  for (int i = 1; i < failures && most < kLongestPause; ++i) most *= 2;
  most = std::min(most, kLongestPause);
  return Between(most / 2, most);
}

milliseconds Reporter::Loop::Between(milliseconds least, milliseconds most) {
  return milliseconds(std::uniform_int_distribution(least.count(), most.count())(random_));
}

// Nothing that the host's code throws may end the host from our thread.
Outcome Reporter::Loop::ReportOnce(bool last) {
  Usage usage;
  try {
    usage = source_();
  } catch (...) {
    return {std::nullopt, ErrorKind::BadUsage, Text(std::current_exception())};
  }
  std::optional<int> code;
  try {
    code = last ? client_.SignOff(usage) : client_.Report(usage);
  } catch (const std::exception&) {
    code.reset();  // the client's last error is the reason
  }
  return {code, client_.LastError().kind, client_.LastError().text};
}

void Reporter::Loop::Tell(const Outcome& outcome) {
  if (outcome.kind != ErrorKind::None) Write(outcome.text);
  if (!listener_) return;
  try {
    listener_(outcome);
  } catch (...) {
    Write("the listener threw: " + Text(std::current_exception()));
  }
}

void Reporter::Loop::Write(const std::string& line) const {
  if (!log_) return;
  try {
    log_(line);
  } catch (...) {
    return;  // there is nobody left to tell
  }
}

// A host that becomes a daemon after it made its reporter would be silent for ever: the thread stays behind
// in the parent. So the child tells its listener, unless it is one that only calls exec.
void Reporter::Loop::WatchForks() {
  pthread_atfork([] { loopsMutex_.lock(); }, [] { loopsMutex_.unlock(); },
                 [] {
                   loopsMutex_.unlock();
                   for (Loop* loop = firstLoop_; loop != nullptr; loop = loop->nextLoop_) loop->TellOfFork();
                 });
}

void Reporter::Loop::TellOfFork() {
  try {
    const BlockedSignals block;
    std::thread([self = shared_from_this()] {
      std::this_thread::sleep_for(kAfterFork);
      const std::scoped_lock lock(self->telling_);
      if (self->stop_ || self->signOff_) return;
      self->Tell({std::nullopt, ErrorKind::BadUsage, kForked});
    }).detach();
  } catch (...) {
    return;  // a child of the host's must not fail for us
  }
}

Reporter::Reporter(std::string_view server, const std::string& key, Source usage, milliseconds period,
                   OutcomeListener answered, milliseconds replyTimeout, Log log)
    : loop_(std::make_shared<Loop>(Client(server, key, replyTimeout), std::move(usage), period,
                                   std::move(answered), std::move(log))) {
  loop_->Start();
}

Reporter::Reporter(std::string_view server, const std::string& key, Source usage, milliseconds period,
                   Listener answered, milliseconds replyTimeout)
    : Reporter(server, key, std::move(usage), period,
               answered ? OutcomeListener([answered](const Outcome& outcome) { answered(outcome.code); })
                        : OutcomeListener(),
               replyTimeout) {}

Reporter::~Reporter() {
  loop_->Stop();
}

void Reporter::ReportNow() {
  loop_->ReportNow();
}

std::optional<int> Reporter::SignOff() {
  return loop_->SignOff();
}

Counters Reporter::GetCounters() const {
  return loop_->GetCounters();
}

}  // namespace ugs
