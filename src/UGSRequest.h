#pragma once

#include <rapidjson/fwd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "UGSDefs.h"
#include "UsageCounts.h"

// Turns the JSON document of a report into a record. Stateless, and therefore thread-safe. Each layout's
// parser runs the one before it and then reads the counts that its layout added (ReportLayouts.h).
//
// A missing member fails the request with a log line of its own. A member of the wrong type does not fail
// it: a count that is an integer gives its low 32 bits, any other value 0; a string member that is a number
// gives its digits, any other value "(not a string)". An array or object of the wrong type does fail it.
class UGSRequest {
 public:
  // The newest report of one instance.
  struct RequestData {
    std::vector<std::string> camRtspUrls = {};
    std::string korvaneId = {};
    std::string dockerId = {};
    std::int32_t timeStamp = -1;  // seconds since 1970-01-01 UTC; -1 until the registry stamps it
    ugs::UsageCounts counts = {};
  };

  // Chooses the layout by the member "v6", "v5" or "v4" of `root`, in that order; without one of them it is
  // the legacy layout. Returns Ok with `out` filled, or Failed with `out` in parts.
  static UGSDefs::ReplyCode Parse(const rapidjson::Value& root, RequestData& out);

  // The name of the layout that Parse chooses (ugs::Layout).
  static const char* LayoutName(const rapidjson::Value& root);

  static UGSDefs::ReplyCode ParseLegacy(const rapidjson::Value& request, RequestData& out);
  static UGSDefs::ReplyCode ParseV4(const rapidjson::Value& request, RequestData& out,
                                    const char* versionKey);
  static UGSDefs::ReplyCode ParseV5(const rapidjson::Value& request, RequestData& out,
                                    const char* versionKey);
  static UGSDefs::ReplyCode ParseV6(const rapidjson::Value& request, RequestData& out,
                                    const char* versionKey);
};
