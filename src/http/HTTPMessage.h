#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "http/HTTPStatus.h"

/// Every HTTP-shaped message: requests and replies over TCP, datagrams of SSDP, NOTIFY requests of
/// GENA. A value; it does no input or output.
class HTTPMessage {
 public:
  /// No start line, no fields, no body, not complete.
  HTTPMessage() = default;
  /// Parses `text`, which may be anything. Only a carriage return ends a line; the byte behind it
  /// is dropped, whatever it is. `complete` says whether the text was one whole message; what was
  /// read up to the point where it was not is kept.
  explicit HTTPMessage(std::string_view text);
  /// A complete reply with that status, without fields and body.
  explicit HTTPMessage(HTTPStatus status);

  /// Appends a field under its upper-cased name; a field of the same name stays where it is.
  void addField(std::string_view name, std::string value);
  /// Appends "DATE" with the time `t` in seconds since 1970 (RFC 9110 section 5.6.7); 0 means now.
  void addDate(long t);

  /// The value of the first field of that name in any case; empty when there is none.
  [[nodiscard]] std::string getField(std::string_view name) const;
  [[nodiscard]] bool hasField(std::string_view name) const;

  /// The message as it goes over the wire. No "CONTENT-LENGTH" is added.
  [[nodiscard]] std::string get() const;

  std::string startLine;                 ///< without its line end
  std::vector<std::string> fieldNames;   ///< in upper case, in the order added
  std::vector<std::string> fieldValues;  ///< element i belongs to name i
  std::string body;
  bool complete = false;

 private:
  [[nodiscard]] const std::string* find(std::string_view name) const;
};
