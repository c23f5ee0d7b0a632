#include "SignalFile.h"

#include <sys/signalfd.h>

#include <csignal>

FileDescriptor SignalFile(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return {signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"};
}
