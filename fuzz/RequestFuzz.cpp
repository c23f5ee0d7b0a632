// A sequence of documents and pauses: after every step the totals are the sum of what is stored. Input: a
// line is a document, or "+" and as many seconds as it has bytes.

#include <rapidjson/document.h>
#include <spdlog/spdlog.h>

#include <map>

#include "Fuzz.h"
#include "JsonReader.h"
#include "TestSupport.h"
#include "UsageRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  spdlog::set_level(spdlog::level::off);
  StandingClock clock(1'000'000);
  UsageRecords records;
  std::map<std::string, UGSRequest::RequestData> model;
  std::string_view rest = AsText(data, size);
  while (!rest.empty()) {
    const std::string_view line = NextField(rest);
    if (line.starts_with('+')) {
      clock.now += static_cast<std::int32_t>(line.size());
      records.CheckTimeStamp();
      std::erase_if(model, [&](const auto& entry) { return clock.now - entry.second.timeStamp > 120; });
    } else {
      rapidjson::Document document;
      if (!ParseJson(line, document)) document.SetNull();
      UGSRequest::RequestData request;
      if (UGSRequest::Parse(document, request) != UGSDefs::Ok) continue;
      if (records.ApplyRequest(request) == UsageRecords::Stored)
        model[UsageRecords::InstanceKey(request)] = request;
    }
    ugs::UsageCounts sums;
    for (const auto& [key, request] : model) sums += request.counts;
    Require(records.Totals() == sums &&
            static_cast<std::uint32_t>(records.TotalCameras()) == sums.maxCameras);
  }
  return 0;
}
