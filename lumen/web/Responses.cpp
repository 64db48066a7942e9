#include "lumen/web/Responses.h"

#include <utility>

namespace lumen::web {

void addHeaders(MHD_Response* response, const char* type) {
  constexpr std::pair<const char*, const char*> headers[] = {
      {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"},
      {"Content-Security-Policy",
       "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
      {"Cross-Origin-Resource-Policy", "same-origin"},
      {"Referrer-Policy", "no-referrer"},
      {"X-Content-Type-Options", "nosniff"}};
  for (const auto& [name, value] : headers) MHD_add_response_header(response, name, value);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
}

Response makeResponse(std::string_view body, const char* type) {
  // It is copied: the parameter is not const for the other modes only.
  Response response(MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                    MHD_RESPMEM_MUST_COPY));
  if (response) addHeaders(response.get(), type);
  return response;
}

MHD_Result refuse(MHD_Connection* connection, unsigned status, std::string_view text) {
  const Response response = makeResponse(std::string(text) + "\n", "text/plain; charset=utf-8");
  if (!response) return MHD_NO;
  if (status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  }
  if (status == MHD_HTTP_SERVICE_UNAVAILABLE) {
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_RETRY_AFTER, "10");
  }
  return MHD_queue_response(connection, status, response.get());
}

}  // namespace lumen::web
