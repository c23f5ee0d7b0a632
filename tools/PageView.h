// What the page knows of the server.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Mutex.h"
#include "Status.h"

// What is known at one time.
struct View {
  std::optional<StatusSnapshot> snapshot;
  std::string trouble;      // why there is none
  std::int64_t starts = 0;  // of the server, that were seen
};
using SharedView = std::shared_ptr<const View>;

// The newest view. Any thread.
class Newest {
 public:
  void Set(SharedView view) {
    const ugs::MutexLock lock(mutex_);
    view_.swap(view);  // the old one dies outside the lock
  }

  [[nodiscard]] SharedView Get() const {
    const ugs::MutexLock lock(mutex_);
    return view_;
  }

  // Null while there is none.
  [[nodiscard]] std::shared_ptr<const StatusSnapshot> Snapshot() const {
    SharedView view = Get();
    const StatusSnapshot* snapshot = view->snapshot ? &*view->snapshot : nullptr;
    return {std::move(view), snapshot};
  }

 private:
  mutable ugs::Mutex mutex_;
  SharedView view_ UGS_GUARDED_BY(mutex_) = std::make_shared<const View>(View{
      std::nullopt, "the server was not asked yet", 0});
};
