#include "ProcessSignals.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

ProcessSignals::ProcessSignals() {
  for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU, SIGTTIN}) std::signal(signal, SIG_IGN);
  sigemptyset(&handled_);
  for (const int signal : {SIGINT, SIGTERM, SIGTSTP}) sigaddset(&handled_, signal);
  // Ignored at the start means that somebody wants the server to outlive the terminal (nohup(1)).
  struct sigaction hangup = {};
  if (sigaction(SIGHUP, nullptr, &hangup) != 0 || hangup.sa_handler != SIG_IGN) sigaddset(&handled_, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &handled_, nullptr);
}

int ProcessSignals::WaitUntil(std::chrono::steady_clock::time_point deadline) const {
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  while (true) {
    // Anew for each wait: a signal that is not ours must not lengthen the whole.
    const auto left = std::max<nanoseconds>(deadline - std::chrono::steady_clock::now(), nanoseconds(0));
    const auto whole = std::chrono::duration_cast<seconds>(left);
    const timespec timeout{whole.count(), (left - whole).count()};
    const int signal = sigtimedwait(&handled_, nullptr, &timeout);
    if (signal > 0) return signal;
    if (errno != EINTR) return 0;  // a signal that we do not handle (SIGCONT) interrupts the wait
  }
}

// With the default action, so that a shell sees its job stopped.
void ProcessSignals::StopProcess() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  std::raise(SIGTSTP);                           // blocked, so it waits
  pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);  // stops here
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

ScopedSignalBlock::ScopedSignalBlock() {
  sigset_t all;
  sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&all, fault);
  pthread_sigmask(SIG_BLOCK, &all, &before_);
}

ScopedSignalBlock::~ScopedSignalBlock() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}
