// The page's live news: streams of server-sent events (WHATWG HTML, section 9.2).
#pragma once

#include <microhttpd.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Mutex.h"
#include "PageAnswer.h"
#include "PageView.h"

// A stream starts with the event `whole`, the object of /status. Each second then brings `change`, what is
// different since, or `trouble`, an object whose `error` says why there is no status.
//
// All streams share the texts, of which the newest are kept: a reader that falls behind them is dropped, so a
// slow one costs no memory. One that takes nothing at all is ended by the library's time limit.
class PageEvents {
 public:
  // `hasHistory`: whether the page keeps one; the event `history` then says so first.
  explicit PageEvents(bool hasHistory) : hasHistory_(hasHistory) {}
  PageEvents(const PageEvents&) = delete;
  PageEvents& operator=(const PageEvents&) = delete;

  // Any thread but the library's.
  void Publish(SharedView view);

  // A new stream; nothing if there are as many as there may be. The library's thread.
  std::optional<Answer> Open(MHD_Connection* connection);

  // Ends all streams: the library cannot be stopped while one of them waits. Any thread but the library's.
  void End();

 private:
  using Text = std::shared_ptr<const std::string>;

  struct Stream {
    PageEvents& events;
    MHD_Connection* connection;
    Text text;               // being sent; null between two events
    std::size_t sent = 0;    // of it
    std::uint64_t next = 0;  // number of the event that follows
    bool isWaiting = false;  // for it, with the connection suspended
    bool isDropped = false;
  };

  static ssize_t Read(void* stream, std::uint64_t position, char* buffer, std::size_t size);
  static void Close(void* stream);

  ssize_t Take(Stream& stream, char* buffer, std::size_t size) UGS_EXCLUDES(mutex_);
  bool Advance(Stream& stream) UGS_REQUIRES(mutex_);
  const Text& Whole() UGS_REQUIRES(mutex_);
  void Keep(Text text) UGS_REQUIRES(mutex_);
  void ForgetOldest() UGS_REQUIRES(mutex_);
  void Wake(Stream& stream) UGS_REQUIRES(mutex_);
  [[nodiscard]] std::uint64_t Following() const UGS_REQUIRES(mutex_) { return first_ + recent_.size(); }

  const bool hasHistory_;
  ugs::Mutex mutex_;  // the library's own are taken while it is held
  std::set<Stream*> streams_ UGS_GUARDED_BY(mutex_);
  SharedView view_ UGS_GUARDED_BY(mutex_);
  std::deque<Text> recent_ UGS_GUARDED_BY(mutex_);
  std::size_t recentSize_ UGS_GUARDED_BY(mutex_) = 0;  // bytes
  std::uint64_t first_ UGS_GUARDED_BY(mutex_) = 1;     // number of the oldest that is kept
  Text whole_ UGS_GUARDED_BY(mutex_);
  std::uint64_t afterWhole_ UGS_GUARDED_BY(mutex_) = 0;  // number of the first event that it does not hold
  bool isEnding_ UGS_GUARDED_BY(mutex_) = false;
};
