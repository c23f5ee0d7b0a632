// What a server and the instances that report to it have agreed on, apart from the layouts (ReportLayouts.h).
#pragma once

#include <cstdint>
#include <string_view>

namespace UGSDefs {

// The answer to one report, sent as decimal text. The reason for a `Failed` is only in the server's log.
enum ReplyCode : std::int32_t {
  Ok = 0,      // opened, parsed and counted
  Hello = 1,   // the greeting; nothing was counted
  Failed = 2,  // not opened, not a valid document of its layout, or without an identity
};

inline constexpr std::string_view kVersion = "2025.3.0-3380";
inline constexpr std::string_view kGreeting = "{hello}";
inline constexpr std::uint16_t kPort = 9304;

// The members of an envelope, each the base64 of bytes.
inline constexpr const char* kWrappedKeyMember = "data1";
inline constexpr const char* kIvMember = "data2";
inline constexpr const char* kCiphertextMember = "data3";

}  // namespace UGSDefs
