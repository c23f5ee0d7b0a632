#include "PageAnswer.h"

#include <new>
#include <utility>

void AddHeader(const Answer& answer, const char* name, const char* value) {
  if (MHD_add_response_header(answer.response.get(), name, value) != MHD_YES) throw std::bad_alloc();
}

Answer MakeAnswer(unsigned status, const char* type, Response response) {
  if (!response) throw std::bad_alloc();
  Answer answer{status, std::move(response)};
  AddHeader(answer, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  AddHeader(answer, "Content-Security-Policy", "default-src 'self'");
  AddHeader(answer, "X-Content-Type-Options", "nosniff");
  AddHeader(answer, "Cache-Control", "no-store");
  AddHeader(answer, "Referrer-Policy", "no-referrer");
  return answer;
}

Answer MakeAnswer(unsigned status, const char* type, std::string_view body) {
  // The library copies the body; its parameter is not const for other modes.
  auto* response =
      MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
  return MakeAnswer(status, type, Response(response, MHD_destroy_response));
}
