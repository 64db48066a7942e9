#pragma once

/// Status codes (RFC 9110 section 15; 412 as GENA uses it). The type can hold other numbers too.
enum HTTPStatus : int {
  HTTP_OK = 200,
  HTTP_BAD_REQUEST = 400,
  HTTP_NOT_FOUND = 404,
  HTTP_PRECONDITION_FAILED = 412,
  HTTP_INTERNAL_SERVER_ERROR = 500,
  HTTP_NOT_IMPLEMENTED = 501,
};
