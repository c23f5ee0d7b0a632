#include "UGSRequest.h"

#include <rapidjson/document.h>

#include <array>
#include <functional>

#include "JsonReader.h"
#include "Logging.h"
#include "ReportLayouts.h"

using rapidjson::Value;
using UGSDefs::Failed;
using UGSDefs::Ok;
using UGSDefs::ReplyCode;

namespace {

using RequestData = UGSRequest::RequestData;

struct VersionRow {
  const char* key;
  std::function<ReplyCode(const Value&, RequestData&, const char*)> parser;
};

// Newest first: a document that carries several layouts is read in the newest.
const std::array kVersions{
    VersionRow{ugs::kV6Layout.name, UGSRequest::ParseV6},
    VersionRow{ugs::kV5Layout.name, UGSRequest::ParseV5},
    VersionRow{ugs::kV4Layout.name, UGSRequest::ParseV4},
};
static_assert(kVersions.size() + 1 == ugs::kLayouts.size(), "a layout has no parser");

// The wrong type never fails a request that has the member: instances of all ages are counted.
std::string ReadString(const Value& value) {
  if (value.IsString()) return value.GetString();  // up to its first NUL
  if (value.IsUint64()) return std::to_string(value.GetUint64());
  if (value.IsInt64()) return std::to_string(value.GetInt64());
  if (value.IsDouble()) return fmt::format("{}", value.GetDouble());
  return "(not a string)";
}

// A negative count keeps its low 32 bits, so that -1 is 4294967295.
std::uint32_t ReadCount(const Value& value) {
  if (value.IsUint64()) return static_cast<std::uint32_t>(value.GetUint64());
  if (value.IsInt64()) return static_cast<std::uint32_t>(value.GetInt64());
  return 0;
}

// The first missing count fails the request; what was read before it stays in `out`.
ReplyCode ReadCounts(const Value& counts, const ugs::Layout& layout, ugs::UsageCounts& out,
                     const FunctionLog& log) {
  for (const ugs::CountField& field : layout.addedCounts) {
    const Value* count = FindMember(counts, field.key);
    if (count == nullptr) {
      log.Error("error {}:: could not read data content\n", field.codeWhenMissing);
      return Failed;
    }
    out.*field.member = ReadCount(*count);
  }
  return Ok;
}

// Where the absence of a member is told.
enum class Outlet { kLog, kConsole };

// A member that every request has. `read` answers false if the value is of a type that fails the request.
struct MemberRow {
  const char* key;
  Outlet outlet;
  const char* textWhenMissing;
  bool (*read)(const Value& value, RequestData& out);
  const char* textWhenWrong;
};

const std::array kMembers{
    // The only text without a line break at its end.
    MemberRow{ugs::kInstanceIdMember, Outlet::kLog, "error 0xE099:: could not read data content",
              [](const Value& value, RequestData& out) {
                out.korvaneId = ReadString(value);
                return true;
              },
              nullptr},
    MemberRow{ugs::kContainerMember, Outlet::kLog, "error 0xE126:: could not read data content\n",
              [](const Value& value, RequestData& out) {
                out.dockerId = ReadString(value);
                return true;
              },
              nullptr},
    MemberRow{ugs::kCameraUrlsMember, Outlet::kLog, "error 0xE146:: could not read data content\n",
              [](const Value& value, RequestData& out) {
                if (!value.IsArray()) return false;
                out.camRtspUrls.reserve(value.Size());
                for (const Value& url : value.GetArray()) out.camRtspUrls.push_back(ReadString(url));
                return true;
              },
              "error 0xE140:: could not read data content\n"},
    // Its counts are read afterwards, layout by layout.
    MemberRow{ugs::kCountsMember, Outlet::kConsole, "error 0xE216:: could not read data content\n",
              [](const Value& value, RequestData& /*out*/) { return value.IsObject(); },
              "error 0xE210:: could not read data content\n"},
};

ReplyCode ReadMembers(const Value& request, RequestData& out, const FunctionLog& log) {
  for (const MemberRow& row : kMembers) {
    const Value* value = FindMember(request, row.key);
    if (value == nullptr && row.outlet == Outlet::kConsole) {
      PrintToConsole(row.textWhenMissing);
      return Failed;
    }
    if (value == nullptr || !row.read(*value, out)) {
      log.Error("{}", value == nullptr ? row.textWhenMissing : row.textWhenWrong);
      return Failed;
    }
  }
  return Ok;
}

}  // namespace

ReplyCode UGSRequest::Parse(const Value& root, RequestData& out) {
  static constexpr FunctionLog log("UGSRequest::Parse");
  if (!root.IsObject()) {
    log.Error("Error 0x476:: invalid data\n");
    return Failed;
  }
  // The key alone decides; a value that is no object fails in the parser, not here.
  for (const VersionRow& version : kVersions) {
    if (const Value* request = FindMember(root, version.key))
      return version.parser(*request, out, version.key);
  }
  return ParseLegacy(root, out);
}

const char* UGSRequest::LayoutName(const Value& root) {
  for (const VersionRow& version : kVersions) {
    if (root.IsObject() && FindMember(root, version.key) != nullptr) return version.key;
  }
  return ugs::kLegacyLayout.name;
}

ReplyCode UGSRequest::ParseLegacy(const Value& request, RequestData& out) {
  static constexpr FunctionLog log("UGSRequest::ParseLegacy");
  out = RequestData();
  if (!request.IsObject()) {
    log.Error("Error 0x476:: invalid data\n");
    return Failed;
  }
  const ReplyCode code = ReadMembers(request, out, log);
  return code == Ok ? ReadCounts(request[ugs::kCountsMember], ugs::kLegacyLayout, out.counts, log) : code;
}

ReplyCode UGSRequest::ParseV4(const Value& request, RequestData& out, const char* /*versionKey*/) {
  static constexpr FunctionLog log("ParseV4");
  const ReplyCode code = ParseLegacy(request, out);
  return code == Ok ? ReadCounts(request[ugs::kCountsMember], ugs::kV4Layout, out.counts, log) : code;
}

ReplyCode UGSRequest::ParseV5(const Value& request, RequestData& out, const char* versionKey) {
  static constexpr FunctionLog log("ParseV5");
  const ReplyCode code = ParseV4(request, out, versionKey);
  return code == Ok ? ReadCounts(request[ugs::kCountsMember], ugs::kV5Layout, out.counts, log) : code;
}

ReplyCode UGSRequest::ParseV6(const Value& request, RequestData& out, const char* versionKey) {
  static constexpr FunctionLog log("ParseV6");
  const ReplyCode code = ParseV5(request, out, versionKey);
  return code == Ok ? ReadCounts(request[ugs::kCountsMember], ugs::kV6Layout, out.counts, log) : code;
}
