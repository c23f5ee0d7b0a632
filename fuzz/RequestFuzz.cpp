// A sequence of documents and pauses: after every step the totals are the sum of what is stored. Input: a
// line is a document, or "+" and as many seconds as it has bytes.

#include <rapidjson/document.h>
#include <spdlog/spdlog.h>

#include <map>
#include <sstream>

#include "Fuzz.h"
#include "JsonReader.h"
#include "TestSupport.h"
#include "UsageRecords.h"

void TestOneInput(std::string_view input) {
  spdlog::set_level(spdlog::level::off);
  FakeClock clock(1'000'000);
  UsageRecords records;
  std::map<std::string, UGSRequest::RequestData> model;
  std::istringstream lines{std::string(input)};
  for (std::string line; std::getline(lines, line);) {
    rapidjson::Document document;
    UGSRequest::RequestData request;
    if (line.starts_with('+')) {
      clock.now += static_cast<std::int32_t>(line.size());
      records.CheckTimeStamp();
      std::erase_if(model, [&](const auto& entry) { return clock.now - entry.second.timeStamp > 120; });
    } else if (ParseJson(line, document) && UGSRequest::Parse(document, request) == UGSDefs::Ok &&
               records.ApplyRequest(request) == UsageRecords::Stored) {
      model[UsageRecords::InstanceKey(request)] = request;
    }
    ugs::UsageCounts sums;
    for (const auto& [key, stored] : model) sums += stored.counts;
    Require(records.Totals() == sums);
    Require(static_cast<std::uint32_t>(records.TotalCameras()) == sums.maxCameras);
  }
}
