#include "UGSRequest.h"

#include <rapidjson/document.h>

#include <array>
#include <functional>
#include <span>

#include "Logging.h"

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

const std::array kVersions{
    VersionRow{"v6", UGSRequest::ParseV6},
    VersionRow{"v5", UGSRequest::ParseV5},
    VersionRow{"v4", UGSRequest::ParseV4},
};

// The member of `object` named `key`, or null. `object` must be an object.
const Value* Find(const Value& object, const char* key) {
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

std::string ReadString(const Value& value) {
  if (value.IsString()) return value.GetString();  // up to its first NUL
  if (value.IsUint64()) return std::to_string(value.GetUint64());
  if (value.IsInt64()) return std::to_string(value.GetInt64());
  if (value.IsDouble()) return fmt::format("{}", value.GetDouble());
  return "(not a string)";
}

std::uint32_t ReadCount(const Value& value) {
  if (value.IsUint64()) return static_cast<std::uint32_t>(value.GetUint64());
  if (value.IsInt64()) return static_cast<std::uint32_t>(value.GetInt64());
  return 0;
}

ReplyCode ReadCounts(const Value& inUse, std::span<const CountField> fields, UsageCounts& counts,
                     const LogScope& log) {
  for (const CountField& field : fields) {
    const Value* count = Find(inUse, field.key);
    if (count == nullptr) {
      log.Error("{}", field.textWhenMissing);
      return Failed;
    }
    counts.*field.member = ReadCount(*count);
  }
  return Ok;
}

}  // namespace

ReplyCode UGSRequest::Parse(const Value& root, RequestData& out) {
  static constexpr LogScope log("UGSRequest::Parse");
  if (!root.IsObject()) {
    log.Error("Error 0x476:: invalid data\n");
    return Failed;
  }
  for (const VersionRow& version : kVersions) {
    if (const Value* request = Find(root, version.key)) return version.parser(*request, out, version.key);
  }
  return ParseLegacy(root, out);
}

ReplyCode UGSRequest::ParseLegacy(const Value& request, RequestData& out) {
  static constexpr LogScope log("UGSRequest::ParseLegacy");
  out = RequestData();
  if (!request.IsObject()) {
    log.Error("Error 0x476:: invalid data\n");
    return Failed;
  }
  const Value* korvaneId = Find(request, "KorvaneID");
  if (korvaneId == nullptr) {
    log.Error("error 0xE099:: could not read data content");
    return Failed;
  }
  out.korvaneId = ReadString(*korvaneId);

  const Value* dockerId = Find(request, "DockerID");
  if (dockerId == nullptr) {
    log.Error("error 0xE126:: could not read data content\n");
    return Failed;
  }
  out.dockerId = ReadString(*dockerId);

  const Value* urls = Find(request, "CamRtspUrls");
  if (urls == nullptr) {
    log.Error("error 0xE146:: could not read data content\n");
    return Failed;
  }
  if (!urls->IsArray()) {
    log.Error("error 0xE140:: could not read data content\n");
    return Failed;
  }
  for (const Value& url : urls->GetArray()) out.camRtspUrls.push_back(ReadString(url));

  const Value* inUse = Find(request, "InUse");
  if (inUse == nullptr) {
    PrintToConsole("error 0xE216:: could not read data content\n");
    return Failed;
  }
  if (!inUse->IsObject()) {
    log.Error("error 0xE210:: could not read data content\n");
    return Failed;
  }
  return ReadCounts(*inUse, kLegacyCounts, out.counts, log);
}

ReplyCode UGSRequest::ParseV4(const Value& request, RequestData& out, const char* /*versionKey*/) {
  static constexpr LogScope log("ParseV4");
  const ReplyCode code = ParseLegacy(request, out);
  return code == Ok ? ReadCounts(request["InUse"], kV4Counts, out.counts, log) : code;
}

ReplyCode UGSRequest::ParseV5(const Value& request, RequestData& out, const char* versionKey) {
  static constexpr LogScope log("ParseV5");
  const ReplyCode code = ParseV4(request, out, versionKey);
  return code == Ok ? ReadCounts(request["InUse"], kV5Counts, out.counts, log) : code;
}

ReplyCode UGSRequest::ParseV6(const Value& request, RequestData& out, const char* versionKey) {
  static constexpr LogScope log("ParseV6");
  const ReplyCode code = ParseV5(request, out, versionKey);
  return code == Ok ? ReadCounts(request["InUse"], kV6Counts, out.counts, log) : code;
}
