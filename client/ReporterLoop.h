#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Channel.h"
#include "Destination.h"
#include "Mutex.h"
#include "UgsClient.h"
#include "Wakeup.h"

namespace ugs {

// The pause after so many failures in a row (at least one): random, lest all instances of a server that was
// restarted come back at one moment.
std::chrono::milliseconds PauseAfter(int failures, std::chrono::milliseconds period,
                                     std::minstd_rand& random);

// Reports for instances, each by its own clock, on one thread of its own. Any thread may call it, but for
// Stop and SignOffAll, which its owner calls. The thread holds it, too, so it outlives an owner that its own
// listener destroys.
class __attribute__((visibility("hidden"))) ReporterLoop : public std::enable_shared_from_this<ReporterLoop> {
 public:
  // Throws as Reporter's constructor does, for the range of periods that begins with `shortestPeriod`.
  ReporterLoop(std::string_view server, const std::string& key, std::chrono::milliseconds period,
               ReporterGroup::Listener listener, std::chrono::milliseconds replyTimeout, Reporter::Log log);
  ~ReporterLoop();

  void Start();
  void Interrupt();  // gives up what is in flight; does not wait for the thread
  void Stop();       // the same, and waits for it

  // As those of ReporterGroup.
  void Join(const std::string& name, Reporter::Source source);
  void ReportNow(const std::string& name);
  void SignOff(const std::string& name);
  void Leave(const std::string& name);
  [[nodiscard]] Counters GetCounters() const;

  // Waits until all instances have signed off. The code of the last one's last report.
  std::optional<int> SignOffAll();

  // Tests, which scale time, set a shorter one.
  static inline std::chrono::milliseconds shortestPeriod = kShortestPeriod;

 private:
  struct Instance {
    std::string name;
    Reporter::Source source;
    Clock::time_point due;
    int failures = 0;    // in a row
    bool again = false;  // it is to report at once when what is in flight has ended
    bool last = false;   // its next report signs it off
  };
  // One connection, and whose request is in flight on it. Nobody's, if that instance has left.
  struct Line {
    explicit Line(Destination& destination) : channel(destination) {}
    Channel channel;
    Instance* instance = nullptr;
    Clock::time_point idleSince;
  };

  void Run();
  void Post(std::function<void()> command);
  void PostTo(const std::string& name, std::function<void(Instance&)> command);
  void ObeyCommands();
  // False if something is due for which there is no line.
  bool BeginWhatIsDue();
  void Wait(bool isAllBegun);
  void CloseIdleLines();

  Line* FreeLine();
  void Begin(Instance& instance, Line& line);
  // The reason, if there is no envelope to send.
  std::optional<Outcome> Seal(const Instance& instance, std::string& envelope) const;
  void Advance(Line& line);
  void Finish(Instance& instance, const Outcome& outcome);
  void FailWhatIsDue(const Outcome& outcome);
  void Schedule(Instance& instance, Clock::time_point due);
  void ScheduleNow(Instance& instance);
  void SignOff(Instance& instance);
  [[nodiscard]] Line* LineOf(const Instance& instance) const;
  void Remove(Instance& instance);
  void Tell(const std::string& name, const Outcome& outcome) const;
  void Write(const std::string& line) const;
  void JoinOrLeave();

  // The handlers of pthread_atfork(3).
  static void WatchForks();
  static void BeforeFork() UGS_ACQUIRES(loopsMutex_) { loopsMutex_.Lock(); }
  static void AfterFork() UGS_RELEASES(loopsMutex_) { loopsMutex_.Unlock(); }
  static void AfterForkInChild() UGS_RELEASES(loopsMutex_);
  void TellOfFork();

  const std::chrono::milliseconds period_;
  const ReporterGroup::Listener listener_;
  const Reporter::Log log_;
  Wakeup wakeup_;  // ends a wait
  std::atomic<bool> stop_ = false;
  std::atomic<bool> finish_ = false;  // once no instance is left

  Mutex mutex_;
  std::vector<std::function<void()>> commands_ UGS_GUARDED_BY(mutex_);

  // The thread's. Counters and IsForeign of the destination are everybody's.
  Destination destination_;
  std::map<std::string, Instance> instances_;
  std::set<std::pair<Clock::time_point, Instance*>> schedule_;  // of those without a line
  std::vector<std::unique_ptr<Line>> lines_;
  std::optional<int> lastCode_;  // the owner's, too, once the thread is joined
  std::minstd_rand random_{std::random_device{}()};

  // In a child of a fork: held while it calls the listener, which may stop its reporter.
  std::recursive_mutex telling_;

  static inline Mutex loopsMutex_;
  static inline ReporterLoop* firstLoop_ UGS_GUARDED_BY(loopsMutex_) = nullptr;
  ReporterLoop* nextLoop_ UGS_GUARDED_BY(loopsMutex_) = nullptr;

  std::thread thread_;  // the owner's; or its own, if a listener destroys the owner
};

}  // namespace ugs
