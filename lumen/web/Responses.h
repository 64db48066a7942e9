#pragma once

#include <microhttpd.h>

#include <memory>
#include <string>
#include <string_view>

namespace lumen::web {

struct ResponseDeleter {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
/// Connections that send it hold it, too.
using Response = std::unique_ptr<MHD_Response, ResponseDeleter>;

/// Adds the headers that every answer has: what a browser may do with it, and that it is not
/// stored.
void addHeaders(MHD_Response* response, const char* type);

[[nodiscard]] Response makeResponse(std::string_view body, const char* type);

/// A line of text with that status.
[[nodiscard]] MHD_Result refuse(MHD_Connection* connection, unsigned status, std::string_view text);

}  // namespace lumen::web
