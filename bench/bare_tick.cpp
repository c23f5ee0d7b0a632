// The floor of an idle server: a process that sleeps as its intake does, and does nothing else.

#include <sys/prctl.h>

#include <chrono>
#include <thread>

int main() {
  prctl(PR_SET_TIMERSLACK, 1UL);
  while (true)
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::milliseconds(10));
}
