// An answer of the page, for libmicrohttpd.
#pragma once

#include <microhttpd.h>

#include <memory>
#include <string_view>

using Response = std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)>;

struct Answer {
  unsigned status = MHD_HTTP_OK;  // RFC 9110
  Response response{nullptr, MHD_destroy_response};
};

void AddHeader(const Answer& answer, const char* name, const char* value);

// With the headers that every answer has. Throws std::bad_alloc if `response` is null.
Answer MakeAnswer(unsigned status, const char* type, Response response);

// `body` is copied.
Answer MakeAnswer(unsigned status, const char* type, std::string_view body);
