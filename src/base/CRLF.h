#pragma once

#include <string>

/// The line end of HTTP (RFC 9112 section 2.2) and of every document served.
inline const std::string CRLF = "\r\n";
