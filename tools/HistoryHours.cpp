#include "HistoryHours.h"

#include <algorithm>

#include "UtcTime.h"

void AddUse(std::vector<StatusUse>& uses, const StatusUse& use) {
  const auto same = std::find_if(uses.begin(), uses.end(),
                                 [&](const StatusUse& one) { return one.feature == use.feature; });
  if (same == uses.end()) {
    uses.push_back(use);
    return;
  }
  if (use.peak > same->peak) {
    same->peak = use.peak;
    same->peakTime = use.peakTime;
  }
  same->unitSeconds += use.unitSeconds;
}

std::vector<InstanceHour> HoursOf(const StatusPeer& peer, std::int64_t cameraSeconds, std::int64_t until,
                                  const SeenHours& seen, std::int64_t since) {
  std::vector<InstanceHour> hours;
  std::int64_t rest = cameraSeconds;
  for (const auto& [hour, seconds] : seen) {
    if (hour < since) break;
    const std::int64_t begin = std::max(hour, peer.first);
    const std::int64_t end = std::min(hour + kSecondsPerHour, until);
    if (begin >= end) continue;
    const std::int64_t most = peer.camerasCount * std::min(seconds, end - begin);
    const std::int64_t use = std::min(rest, most);
    rest -= use;
    if (use > 0) hours.push_back({hour, use, begin, std::clamp(peer.last, begin, end - 1)});
  }
  return hours;
}
