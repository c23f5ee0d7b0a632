#pragma once

#include <chrono>
#include <csignal>

// The signals that the main loop acts on: SIGINT, SIGTERM, SIGHUP (unless it was ignored at start, as nohup
// does) and SIGTSTP. They are blocked in every thread and taken from the queue here, so no handler runs, no
// system call elsewhere is interrupted, and process 1 of a container gets them too.
//
// Ignored are SIGPIPE and SIGXFSZ, since a console or a log that cannot be written does not stop the
// counting, and SIGTTOU and SIGTTIN, by which a terminal stops a background job.
//
// Construct before the first thread exists and before the first output. Main thread only.
class ProcessSignals {
 public:
  ProcessSignals();

  // Sleeps until `deadline` or one of the signals, and returns it; 0 if the deadline came first.
  [[nodiscard]] int WaitUntil(std::chrono::steady_clock::time_point deadline) const;

  // Stops the process as SIGTSTP does by default, until it is continued.
  static void StopProcess();

 private:
  sigset_t handled_;
};

// Blocks signals in the calling thread while it exists. A thread that is started meanwhile inherits that and
// leaves every signal sent to the process to the main thread: a fatal signal's handler restores the terminal,
// whose modes the main thread alone changes. Faults of a thread's own (SIGSEGV and the like) stay unblocked,
// as a blocked one would end the process without its handler.
class ScopedSignalBlock {
 public:
  ScopedSignalBlock();
  ~ScopedSignalBlock();
  ScopedSignalBlock(const ScopedSignalBlock&) = delete;
  ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;

 private:
  sigset_t before_{};
};
