#include <gtest/gtest.h>

#include "http/MessageLines.h"

TEST(HeaderLine, NeedsAColon) {
  EXPECT_FALSE(parseHeaderLine(""));
  EXPECT_FALSE(parseHeaderLine("Host a"));
}

// Promise: The method of a request is the text before the first blank of its start line, and the
// URL what follows it up to the first ` HTTP/` or the end.
// Promise: A start line of one word is a method without a URL.
TEST(RequestLine, SplitsAtTheFirstBlankAndTheVersion) {
  const struct {
    const char* startLine;
    const char* method;
    const char* url;
  } lines[] = {
      {"GET /x HTTP/1.1", "GET", "/x"},
      {"GET /x", "GET", "/x"},
      {"GET /x y HTTP/1.1", "GET", "/x y"},
      {"GET /x HTTP/1.1 HTTP/1.1", "GET", "/x"},
      {"GET  HTTP/1.1", "GET", ""},
      {"GET HTTP/1.1", "GET", ""},
      {"GET ", "GET", ""},
      {"GET", "GET", ""},
      {"", "", ""},
      {" /x HTTP/1.1", "", "/x"},
      {"GET /x http/1.1", "GET", "/x http/1.1"},
  };
  for (const auto& [startLine, method, url] : lines) {
    const RequestLine line = parseRequestLine(startLine);
    EXPECT_EQ(line.method, method) << startLine;
    EXPECT_EQ(line.url, url) << startLine;
  }
}
