#include "FleetStatus.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "Logging.h"
#include "StatusRules.h"
#include "UsageRecords.h"

namespace {

constexpr std::size_t kShownBytes = 512;  // of a string of a peer's; it may have sent a megabyte
constexpr std::size_t kShownCameras = 256;
constexpr std::size_t kAddresses = 256;
constexpr std::size_t kHours = 48;
constexpr std::size_t kChanges = 1000;      // that are kept; a second has 93 at most
constexpr std::size_t kCopiedAtOnce = 500;  // instances, with the lock held
constexpr std::chrono::milliseconds kPauseOfCopy(1);
constexpr std::int64_t kSecondsPerHour = 3600;

// A tick comes every 10 ms. After a longer gap the machine was asleep or its clock was set: nothing was seen.
constexpr std::int64_t kLongestStep = 10;

std::int64_t Now() {
  return clockFunction();
}

// The beginning of `text`, with U+FFFD in place of what is not UTF-8.
std::string Cut(std::string_view text) {
  const std::string_view shown = text.substr(0, kShownBytes);
  rapidjson::MemoryStream in(shown.data(), shown.size());
  rapidjson::StringBuffer out;
  while (in.Tell() < in.size_) {
    unsigned codepoint = 0;
    if (!rapidjson::UTF8<>::Decode(in, &codepoint)) codepoint = 0xFFFD;
    rapidjson::UTF8<>::Encode(out, codepoint);
  }
  if (text.size() > kShownBytes) rapidjson::UTF8<>::Encode(out, 0x2026);  // an ellipsis
  return {out.GetString(), out.GetSize()};
}

// "host", "host:port" or "[address]:port"; and not the beginning of "user:password", up to a "/" in the
// password.
bool IsHost(std::string_view authority) {
  const std::size_t colon = authority.rfind(':');
  return colon == std::string_view::npos || authority.ends_with(']') ||
         authority.find_first_not_of("0123456789", colon + 1) == std::string_view::npos;
}

// RFC 3986, 3.2.1: the password stands before the last "@" of the authority, which ends before the path.
// Cameras also take passwords with a bare "/", "?" or "#", and people leave out the scheme.
std::string WithoutPassword(std::string_view url) {
  const std::size_t slashes = url.find("//");
  const std::size_t begin = slashes == std::string_view::npos ? 0 : slashes + 2;
  const std::string_view rest = url.substr(begin);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  std::size_t at = authority.rfind('@');
  if (at == std::string_view::npos && !IsHost(authority)) at = rest.rfind('@');
  if (at == std::string_view::npos) return Cut(url);
  return Cut(std::string(url.substr(0, begin)).append("***").append(rest.substr(at)));
}

std::shared_ptr<const FleetStatus::Who> MakeWho(const std::string& key,
                                                const UGSRequest::RequestData& request) {
  auto who = std::make_shared<FleetStatus::Who>();
  who->key = key;
  who->identity = Cut(request.korvaneId);
  who->container = Cut(request.dockerId);
  who->allCameras = request.camRtspUrls.size();
  const std::size_t shown = std::min(who->allCameras, kShownCameras);
  who->cameras.reserve(shown);
  for (std::size_t i = 0; i < shown; ++i) who->cameras.push_back(WithoutPassword(request.camRtspUrls[i]));
  return who;
}

// Of a lost one they are not shown, and a peer may have sent many and long ones.
FleetStatus::InstancePointer WithoutCameras(const FleetStatus::Instance& instance) {
  auto lost = std::make_shared<FleetStatus::Instance>(instance);
  auto who = std::make_shared<FleetStatus::Who>(*instance.who);
  who->cameras = {};
  lost->who = std::move(who);
  return lost;
}

}  // namespace

FleetStatus::FleetStatus() {
  server_.started = Now();
}

void FleetStatus::BeginRequest(std::string address) {
  ForgetLastError();
  const ugs::MutexLock lock(mutex_);
  request_ = Request();
  request_.address = std::move(address);
}

void FleetStatus::ReadDocument(const char* layout, std::string_view identity) {
  const ugs::MutexLock lock(mutex_);
  request_.layout = layout;
  request_.identity = Cut(identity);
}

void FleetStatus::EndRequest(std::int32_t reply) {
  const std::int64_t now = Now();
  const ugs::MutexLock lock(mutex_);
  if (reply == UGSDefs::Failed) {
    Refuse(request_.address, ErrorCodeIn(LastError()), request_.identity, now);
  } else if (reply == UGSDefs::Hello) {
    ++server_.greetings;
  }
}

void FleetStatus::RefuseMalformed(const std::string& address) {
  const std::int64_t now = Now();
  const ugs::MutexLock lock(mutex_);
  Refuse(address, ErrorCodeIn(LastError()), {}, now);
}

void FleetStatus::Refuse(std::string address, const std::string& code, const std::string& identity,
                         std::int64_t now) {
  ++server_.refused;
  if (!refusedAddresses_.contains(address)) {
    if (refusedAddresses_.size() < kAddresses) {
      refusedAddresses_.emplace(address, 0);
    } else {
      address = "others";
    }
  }
  Refusal& refusal = refusals_[{std::move(address), code}];
  if (refusal.count++ == 0) refusal.first = now;
  refusal.last = now;
  if (!identity.empty()) refusal.identity = identity;
}

void FleetStatus::Stored(const std::string& key, const UGSRequest::RequestData& request) {
  const std::int64_t now = request.timeStamp;
  const ugs::MutexLock lock(mutex_);
  auto next = std::make_shared<Instance>();
  next->address = request_.address;
  next->layout = request_.layout;
  next->counts = request.counts;
  next->first = next->last = now;
  next->reports = 1;
  next->generation = generation_;
  InstancePointer& row = rows_[key];
  if (row == nullptr) {
    next->who = MakeWho(key, request);
    ChangeUse(nullptr, &next->counts, now);
    cameras_ += next->who->allCameras;
    next->seenBefore = seen_;
    const auto loss = std::ranges::find(
        losses_, key, [](const Loss& one) -> const std::string& { return one.instance->who->key; });
    if (loss != losses_.end() && loss->returned == 0) loss->returned = now;
  } else {
    // The key is a digest of identity and cameras; the container may have changed. A peer may also have cut
    // the same letters into other cameras.
    next->who = row->who->container == Cut(request.dockerId) ? row->who : MakeWho(key, request);
    cameras_ += next->who->allCameras - row->who->allCameras;
    next->first = row->first;
    next->seenBefore = row->seenBefore;
    next->reports = row->reports + 1;
    const auto pause = static_cast<double>(now - row->last);
    next->period = row->reports == 1 ? pause : row->period + (pause - row->period) / 4;
    ChangeUse(&row->counts, &next->counts, now);
    if (row->generation == generation_) {
      totals_ -= row->counts;
    } else {
      --notBack_;
    }
  }
  totals_ += next->counts;
  row = std::move(next);
  NoteChange(key, row);
  ++server_.reports;
  server_.lastReport = now;
  Second& second = seconds_[static_cast<std::size_t>(now) % seconds_.size()];
  if (second.second != now) second = {.second = now};
  ++second.reports;
}

void FleetStatus::Erased(const std::string& key) {
  const std::int64_t now = Now();
  const ugs::MutexLock lock(mutex_);
  const auto row = rows_.find(key);
  if (row != rows_.end()) Lose(row, LossReason::Silent, now);
}

void FleetStatus::Lose(Rows::iterator row, LossReason reason, std::int64_t now) {
  if (row->second->generation == generation_) {
    totals_ -= row->second->counts;
  } else {
    --notBack_;
  }
  ChangeUse(&row->second->counts, nullptr, now);
  cameras_ -= row->second->who->allCameras;
  ++(reason == LossReason::Silent ? server_.silent : server_.neverBack);
  if (row->second->HasSignedOff()) {
    reason = LossReason::SignedOff;
    ++server_.signedOff;
  }
  losses_.push_front(
      {.instance = WithoutCameras(*row->second), .lost = now, .seen = seen_, .reason = reason});
  if (losses_.size() > ugs::kLossesKept) losses_.pop_back();
  NoteChange(row->first, nullptr);
  rows_.erase(row);
}

void FleetStatus::NoteChange(const std::string& key, const InstancePointer& instance) {
  if (!keepsChanges_) return;
  changes_[key] = instance;
  if (changes_.size() <= kChanges) return;
  keepsChanges_ = false;
  changes_.clear();
}

void FleetStatus::EndTick(const Tick& tick) {
  const std::int64_t now = Now();
  const ugs::MutexLock lock(mutex_);
  server_.tick = tick;
  server_.queuePeak = std::max(server_.queuePeak, tick.queue);
  if (now == advancedTo_) return;
  AdvanceTo(now);
  if (notBack_ > 0) LoseThoseNotBack(now);
}

// The new registry never knew them, so it cannot miss them.
void FleetStatus::LoseThoseNotBack(std::int64_t now) {
  for (auto row = rows_.begin(); row != rows_.end();) {
    const auto next = std::next(row);
    const Instance& instance = *row->second;
    if (instance.generation != generation_ && std::abs(now - instance.last) > UsageRecords::kExpiryTimeout) {
      Lose(row, LossReason::NotBack, now);
    }
    row = next;
  }
}

void FleetStatus::Rebuilt() {
  const std::int64_t now = Now();
  const ugs::MutexLock lock(mutex_);
  ++generation_;
  notBack_ = rows_.size();
  totals_ = {};
  server_.rebuilt = now;
  server_.repliesLostBefore += server_.tick.repliesLost;
  server_.tick = {};
}

// What the fleet uses becomes other than it was: `before` leaves it and `after` joins it. Each may be null.
void FleetStatus::ChangeUse(const ugs::UsageCounts* before, const ugs::UsageCounts* after, std::int64_t now) {
  AdvanceTo(now);
  Hour& hour = HourOf(now);
  const ugs::CountSlots none{};
  const auto leaving = before != nullptr ? std::bit_cast<ugs::CountSlots>(*before) : none;
  const auto joining = after != nullptr ? std::bit_cast<ugs::CountSlots>(*after) : none;
  for (std::size_t slot = 0; slot < inUse_.size(); ++slot) {
    if (leaving[slot] < ugs::kNegativeFrom) inUse_[slot] -= leaving[slot];
    if (joining[slot] < ugs::kNegativeFrom) inUse_[slot] += joining[slot];
    Use& use = hour.uses[slot];
    if (inUse_[slot] > use.peak) use = {inUse_[slot], now, use.unitSeconds};
  }
}

// Adds what was in use since the last call to its hours. Afterwards there is one for `now`.
void FleetStatus::AdvanceTo(std::int64_t now) {
  const bool seen = now > advancedTo_ && now - advancedTo_ <= kLongestStep;
  std::int64_t from = seen ? advancedTo_ : now;
  advancedTo_ = now;
  seen_ += static_cast<std::uint64_t>(now - from);
  for (;;) {
    Hour& hour = HourOf(from);
    const std::int64_t next = hour.start + kSecondsPerHour;
    const std::int64_t end = std::min(now, next);
    const auto step = static_cast<std::uint64_t>(end - from);
    hour.seen += end - from;
    for (std::size_t slot = 0; slot < inUse_.size(); ++slot) {
      Use& use = hour.uses[slot];
      if (inUse_[slot] > use.peak) use = {inUse_[slot], from, use.unitSeconds};
      use.unitSeconds += inUse_[slot] * step;
    }
    if (end == now && now != next) return;
    from = end;
  }
}

// The hour of `time`, which may be an earlier one if the clock was set back.
FleetStatus::Hour& FleetStatus::HourOf(std::int64_t time) {
  const std::int64_t start = time - time % kSecondsPerHour;
  auto hour = std::ranges::find_if(hours_, [&](const Hour& one) { return one.start <= start; });
  if (hour == hours_.end() || hour->start != start) hour = hours_.insert(hour, {.start = start});
  Hour& found = *hour;
  if (hours_.size() > kHours) {
    const bool isNewestFarther = hours_.front().start - start > start - hours_.back().start;
    isNewestFarther ? hours_.pop_front() : hours_.pop_back();
  }
  return found;
}

double FleetStatus::ReportsPerSecond(std::int64_t now) const {
  std::uint64_t reports = 0;
  for (const Second& second : seconds_) {
    if (second.second < now && now - second.second <= std::ssize(seconds_)) reports += second.reports;
  }
  const auto span = std::clamp<std::int64_t>(now - server_.started, 1, std::ssize(seconds_));
  return static_cast<double>(reports) / static_cast<double>(span);
}

FleetStatus::Snapshot FleetStatus::TakeSnapshot() {
  const ugs::MutexLock lock(snapshotMutex_);
  Snapshot snapshot;
  Rows changes;
  while (!TakeChanges(snapshot, changes)) CopyAll();
  Apply(changes);
  snapshot.instances = known_;
  return snapshot;
}

// All but the instances, and which of these have changed. False if that was not kept.
bool FleetStatus::TakeChanges(Snapshot& snapshot, Rows& changes) {
  const ugs::MutexLock lock(mutex_);
  if (!keepsChanges_) return false;
  changes.swap(changes_);
  snapshot.time = Now();
  snapshot.generation = generation_;
  snapshot.seen = seen_;
  snapshot.server = server_;
  snapshot.server.reportsPerSecond = ReportsPerSecond(snapshot.time);
  snapshot.totals = totals_;
  snapshot.losses = losses_;
  snapshot.refusals = refusals_;
  snapshot.hours = hours_;
  return true;
}

// In pieces, so that the intake waits for none of them long. What changes meanwhile is kept.
void FleetStatus::CopyAll() {
  std::size_t size = 0;
  {
    const ugs::MutexLock lock(mutex_);
    changes_.clear();
    keepsChanges_ = true;
    size = rows_.size();
  }
  known_.clear();
  known_.reserve(size + kCopiedAtOnce);
  while (CopySome()) std::this_thread::sleep_for(kPauseOfCopy);
}

// False if none are left.
bool FleetStatus::CopySome() {
  const ugs::MutexLock lock(mutex_);
  auto row = known_.empty() ? rows_.begin() : rows_.upper_bound(known_.back()->who->key);
  for (std::size_t copied = 0; copied < kCopiedAtOnce && row != rows_.end(); ++copied, ++row) {
    known_.push_back(row->second);
  }
  return row != rows_.end();
}

void FleetStatus::Apply(const Rows& changes) {
  const auto keyOf = [](const InstancePointer& instance) -> const std::string& {
    return instance->who->key;
  };
  for (const auto& [key, instance] : changes) {
    const auto at = std::ranges::lower_bound(known_, key, {}, keyOf);
    const bool isKnown = at != known_.end() && keyOf(*at) == key;
    if (isKnown && instance != nullptr) {
      *at = instance;
    } else if (isKnown) {
      known_.erase(at);
    } else if (instance != nullptr) {
      known_.insert(at, instance);
    }
  }
}

FleetStatus::Summary FleetStatus::TakeSummary() const {
  const ugs::MutexLock lock(mutex_);
  return {.instances = rows_.size(), .cameras = cameras_, .lastReport = server_.lastReport, .time = Now()};
}
