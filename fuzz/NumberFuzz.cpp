// A number converts to the type and value that the stock reader gives it, wherever that one is defined: it is
// not for exponents of many digits.

#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>

#include "Fuzz.h"
#include "JsonReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = AsText(data, size);
  const std::string_view exponent = text.substr(std::min(text.find_first_of("eE"), text.size()));
  const bool isNumber = text.find_first_not_of("0123456789+-.eE") == std::string_view::npos;
  if (!isNumber || text.size() > 200 || exponent.size() > 5) return 0;
  rapidjson::Document stock;
  stock.Parse(text.data(), text.size());
  rapidjson::Document ours;
  const bool parsed = ParseJson(text, ours);
  const bool tooBig = stock.GetParseError() == rapidjson::kParseErrorNumberTooBig;
  Require(parsed == !stock.HasParseError() || tooBig);
  if (!parsed) return 0;
  if (tooBig || !std::isfinite(stock.GetDouble())) {
    Require(ours.GetDouble() == 0.0);  // beyond every double
    return 0;
  }
  Require(ours.IsInt64() == stock.IsInt64() && ours.IsUint64() == stock.IsUint64());
  if (ours.IsUint64()) Require(ours.GetUint64() == stock.GetUint64());
  if (ours.IsInt64()) Require(ours.GetInt64() == stock.GetInt64());
  const double difference = std::abs(ours.GetDouble() - stock.GetDouble());
  Require(difference <= std::max(std::abs(ours.GetDouble()) * 1e-14, 1e-306));
  return 0;
}
