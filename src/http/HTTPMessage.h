#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "http/HTTPStatus.h"

/// An HTTP-shaped message: a request or reply over TCP, an SSDP datagram or a GENA NOTIFY request.
/// A value; it does no I/O.
class HTTPMessage {
 public:
  /// No start line, no fields, no body, not complete.
  HTTPMessage() = default;
  /// Parses `text`, which may be any bytes. Only a carriage return ends a line; the byte after it
  /// is dropped, whatever it is. `complete` says whether `text` was one whole message; otherwise
  /// everything read before the fault is kept.
  explicit HTTPMessage(std::string_view text);
  /// A complete reply with this status, without fields or body.
  explicit HTTPMessage(HTTPStatus status);

  /// Appends a field under its name in upper case, even if a field of that name exists.
  void addField(std::string_view name, std::string value);
  /// Appends "DATE" with the time `t` in seconds since 1970 (RFC 9110 section 5.6.7); 0 means now.
  void addDate(time_t t);

  /// The value of the first field of that name, case ignored; empty when there is none.
  [[nodiscard]] std::string getField(std::string_view name) const;
  [[nodiscard]] bool hasField(std::string_view name) const;

  /// The message as sent on the wire. It adds no "CONTENT-LENGTH".
  [[nodiscard]] std::string get() const;

  std::string startLine;                 ///< without its line end
  std::vector<std::string> fieldNames;   ///< in upper case, in the order added
  std::vector<std::string> fieldValues;  ///< element i belongs to name i
  std::string body;
  bool complete = false;

 private:
  [[nodiscard]] const std::string* find(std::string_view name) const;
};
