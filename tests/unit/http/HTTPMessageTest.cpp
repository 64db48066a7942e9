#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <random>

#include "http/HTTPMessage.h"

using Strings = std::vector<std::string>;

// Promise: A message that has nothing yet is incomplete and is written as two line ends.
TEST(HTTPMessage, IsEmptyAndIncompleteAtFirst) {
  const HTTPMessage message;
  EXPECT_EQ(message.startLine, "");
  EXPECT_TRUE(message.fieldNames.empty());
  EXPECT_TRUE(message.fieldValues.empty());
  EXPECT_EQ(message.body, "");
  EXPECT_FALSE(message.complete);
  EXPECT_EQ(message.get(), "\r\n\r\n");
}

// Promise: `GET / HTTP/1.1`, `Host: a` and an empty line are a complete message with the one field
// `HOST` of the value `a` and no body.
TEST(HTTPMessage, ParsesARequest) {
  const HTTPMessage message("GET / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_TRUE(message.complete);
  EXPECT_EQ(message.startLine, "GET / HTTP/1.1");
  EXPECT_EQ(message.fieldNames, Strings{"HOST"});
  EXPECT_EQ(message.fieldValues, Strings{"a"});
  EXPECT_EQ(message.body, "");
}

// Promise: A message may have no fields, and without a `CONTENT-LENGTH` all that follows the empty
// line is its body.
TEST(HTTPMessage, ParsesARequestWithoutFields) {
  const HTTPMessage message("GET / HTTP/1.1\r\n\r\nrest");
  EXPECT_TRUE(message.complete);
  EXPECT_TRUE(message.fieldNames.empty());
  EXPECT_EQ(message.body, "rest");
}

// Promise: Blanks between the colon and a value are skipped and nothing else is: tabs and trailing
// blanks stay, and a value may be empty.
// Promise: A field's name is the text before the first colon, blanks included, in upper case; it
// may be empty.
TEST(HTTPMessage, SkipsBlanksBeforeAValueAndNothingElse) {
  const struct {
    const char* line;
    const char* name;
    const char* value;
  } lines[] = {
      {"Host: a", "HOST", "a"},
      {"Host:    a", "HOST", "a"},
      {"Host:a", "HOST", "a"},
      {"Host:\ta", "HOST", "\ta"},
      {"Host: \ta", "HOST", "\ta"},
      {"Host: a  ", "HOST", "a  "},
      {"Host: a b:c", "HOST", "a b:c"},
      {"Host:", "HOST", ""},
      {"Host:   ", "HOST", ""},
      {"Host : a", "HOST ", "a"},
      {" Host: a", " HOST", "a"},
      {":a", "", "a"},
      {":", "", ""},
  };
  for (const auto& [line, name, value] : lines) {
    const HTTPMessage message("GET / HTTP/1.1\r\n" + std::string(line) + "\r\n\r\n");
    EXPECT_TRUE(message.complete) << line;
    EXPECT_EQ(message.fieldNames, Strings{name}) << line;
    EXPECT_EQ(message.fieldValues, Strings{value}) << line;
  }
}

// Promise: A message is incomplete until its empty line has come, whose line feed is not waited
// for.
TEST(HTTPMessage, IsIncompleteUntilTheEmptyLine) {
  const std::string text = "GET / HTTP/1.1\r\nHost: a\r\n\r";
  for (size_t length = 0; length < text.size(); ++length) {
    EXPECT_FALSE(HTTPMessage(text.substr(0, length)).complete) << length;
  }
  EXPECT_TRUE(HTTPMessage(text).complete) << "the last line feed is not waited for";
}

// Promise: A text without a line end has no start line yet.
TEST(HTTPMessage, StoresNothingWithoutALineEnd) {
  EXPECT_EQ(HTTPMessage("").startLine, "");
  EXPECT_EQ(HTTPMessage("GET / HTTP/1.1").startLine, "");
}

// Promise: What was read before a text stopped is kept.
TEST(HTTPMessage, KeepsWhatItReadBeforeTheTextStopped) {
  const HTTPMessage message("GET / HTTP/1.1\r\nHost: a\r\nAccept: b");
  EXPECT_FALSE(message.complete);
  EXPECT_EQ(message.startLine, "GET / HTTP/1.1");
  EXPECT_EQ(message.fieldNames, Strings{"HOST"});
}

// Promise: A header line without a colon leaves the message incomplete for good, whatever follows.
TEST(HTTPMessage, NeverCompletesAfterALineWithoutAColon) {
  const std::string text = "GET / HTTP/1.1\r\nHost: a\r\nnonsense\r\nAccept: b\r\n\r\n";
  const HTTPMessage message(text);
  EXPECT_FALSE(message.complete);
  EXPECT_EQ(message.fieldNames, Strings{"HOST"});
  EXPECT_FALSE(HTTPMessage(text + "GET / HTTP/1.1\r\n\r\n").complete);
}

// Promise [line-end]: Only a carriage return ends a line: a text of line feeds is incomplete and
// has an empty start line.
TEST(HTTPMessage, HasNoLineEndsInATextOfLineFeeds) {
  const HTTPMessage message("GET / HTTP/1.1\nHost: a\n\n");
  EXPECT_FALSE(message.complete);
  EXPECT_EQ(message.startLine, "");
  EXPECT_TRUE(message.fieldNames.empty());
}

// Promise: The byte after a carriage return is dropped, whatever it is.
TEST(HTTPMessage, DropsTheByteAfterACarriageReturn) {
  const HTTPMessage message("GET / HTTP/1.1\rxHost: a\ry\rzbody");
  EXPECT_TRUE(message.complete);
  EXPECT_EQ(message.startLine, "GET / HTTP/1.1");
  EXPECT_EQ(message.fieldNames, Strings{"HOST"});
  EXPECT_EQ(message.fieldValues, Strings{"a"});
  EXPECT_EQ(message.body, "body");
}

// Promise: With a `CONTENT-LENGTH` a message is complete when its body has exactly that many bytes:
// one fewer and one more are incomplete.
TEST(HTTPMessage, IsCompleteWithABodyOfExactlyTheLengthGiven) {
  const std::string head = "POST / HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n";
  EXPECT_FALSE(HTTPMessage(head + "abc").complete);
  EXPECT_TRUE(HTTPMessage(head + "abcde").complete);
  const HTTPMessage longer(head + "abcdef");
  EXPECT_FALSE(longer.complete);
  EXPECT_EQ(longer.body, "abcdef");
}

// Promise: The first `CONTENT-LENGTH` counts, in whatever case it is written.
// Promise [length-digits]: A `CONTENT-LENGTH` is read up to its first character that is no digit:
// `2x` is 2, `x` and nothing are 0.
// Promise [length-max]: A `CONTENT-LENGTH` above 4294967295 is 4294967295 and does not wrap round.
TEST(HTTPMessage, ReadsTheFirstLengthInAnyCase) {
  EXPECT_TRUE(
      HTTPMessage("POST / HTTP/1.1\r\ncontent-Length: 2\r\nContent-Length: 3\r\n\r\nab").complete);
  EXPECT_TRUE(HTTPMessage("POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n").complete);
  EXPECT_TRUE(HTTPMessage("POST / HTTP/1.1\r\nContent-Length:\r\n\r\n").complete);
  EXPECT_TRUE(HTTPMessage("POST / HTTP/1.1\r\nContent-Length: 2x\r\n\r\nab").complete);
  EXPECT_TRUE(HTTPMessage("POST / HTTP/1.1\r\nContent-Length: -4294967294\r\n\r\nab").complete);
  EXPECT_FALSE(HTTPMessage("POST / HTTP/1.1\r\nContent-Length: 4294967298\r\n\r\nab").complete);
}

// Promise: Zero bytes in a value and in a body stay.
TEST(HTTPMessage, KeepsZeroBytes) {
  const std::string text("GET / HTTP/1.1\r\nA: b\0c\r\n\r\nd\0e", 29);
  const HTTPMessage message(text);
  EXPECT_EQ(message.fieldValues, Strings{std::string("b\0c", 3)});
  EXPECT_EQ(message.body, std::string("d\0e", 3));
}

// Promise: A field is found in any case of its whole name: `host`, `HOST` and `Host` are one.
TEST(HTTPMessage, FindsAFieldInAnyCase) {
  HTTPMessage message;
  message.addField("Host", "a");
  EXPECT_EQ(message.fieldNames, Strings{"HOST"});
  for (const char* name : {"host", "HOST", "Host"}) {
    EXPECT_EQ(message.getField(name), "a") << name;
    EXPECT_TRUE(message.hasField(name)) << name;
  }
  EXPECT_FALSE(message.hasField("Hos"));
  EXPECT_FALSE(message.hasField("Hosts"));
  EXPECT_EQ(message.getField("Hosts"), "");
}

// Promise: Two fields of one name are both kept, and the first is found.
TEST(HTTPMessage, KeepsRepeatedFields) {
  HTTPMessage message;
  message.addField("X", "1");
  message.addField("x", "2");
  EXPECT_EQ(message.fieldNames, (Strings{"X", "X"}));
  EXPECT_EQ(message.fieldValues, (Strings{"1", "2"}));
  EXPECT_EQ(message.getField("X"), "1");
}

// Promise: A field that is absent reads like one that is empty.
TEST(HTTPMessage, DistinguishesAnEmptyFieldFromAnAbsentOneByHasField) {
  HTTPMessage message;
  message.addField("EXT", "");
  EXPECT_EQ(message.getField("EXT"), "");
  EXPECT_EQ(message.getField("ABSENT"), "");
  EXPECT_TRUE(message.hasField("EXT"));
  EXPECT_FALSE(message.hasField("ABSENT"));
}

// Promise: Of a name's characters the ASCII letters alone change their case.
TEST(HTTPMessage, UpperCasesAsciiLettersOnly) {
  HTTPMessage message;
  message.addField("a-z\xe4\xc3\xa4[{", "");
  EXPECT_EQ(message.fieldNames, Strings{"A-Z\xe4\xc3\xa4[{"});
}

// Promise: A reply that is a status alone is its status line and an empty line: `HTTP/1.1 200 OK`,
// `400 Bad Request`, `404 Not Found`, `412 Precondition Failed`, `500 Internal Server Error`, `501
// Not Implemented`.
// Promise: A status without a reason phrase keeps the blank before the phrase: `HTTP/1.1 503 `.
TEST(HTTPMessage, MakesAReplyFromAStatus) {
  const struct {
    HTTPStatus status;
    const char* text;
  } replies[] = {
      {HTTP_OK, "HTTP/1.1 200 OK\r\n\r\n"},
      {HTTP_BAD_REQUEST, "HTTP/1.1 400 Bad Request\r\n\r\n"},
      {HTTP_NOT_FOUND, "HTTP/1.1 404 Not Found\r\n\r\n"},
      {HTTP_PRECONDITION_FAILED, "HTTP/1.1 412 Precondition Failed\r\n\r\n"},
      {HTTP_INTERNAL_SERVER_ERROR, "HTTP/1.1 500 Internal Server Error\r\n\r\n"},
      {HTTP_NOT_IMPLEMENTED, "HTTP/1.1 501 Not Implemented\r\n\r\n"},
      {HTTPStatus(503), "HTTP/1.1 503 \r\n\r\n"},
  };
  for (const auto& [status, text] : replies) {
    const HTTPMessage reply(status);
    EXPECT_EQ(reply.get(), text);
    EXPECT_TRUE(reply.complete);
  }
}

// Promise: A message is written as its start line, its fields as `NAME: value` in the order added,
// an empty line and its body; no length is added.
TEST(HTTPMessage, WritesFieldsInTheirOrderAndNoLength) {
  HTTPMessage message(HTTP_OK);
  message.addField("b", "2");
  message.addField("a", " 1 ");
  message.body = "body";
  EXPECT_EQ(message.get(), "HTTP/1.1 200 OK\r\nB: 2\r\nA:  1 \r\n\r\nbody");
}

// Promise: A `DATE` is written as `Fri, 02 Jan 1970 00:00:00 GMT`, in English.
TEST(HTTPMessage, AddsADate) {
  HTTPMessage message;
  message.addDate(86400);
  EXPECT_EQ(message.fieldNames, Strings{"DATE"});
  EXPECT_EQ(message.fieldValues, Strings{"Fri, 02 Jan 1970 00:00:00 GMT"});
}

// Promise: The date of a reply is that of now.
TEST(HTTPMessage, AddsTheCurrentDate) {
  const time_t before = time(nullptr);
  HTTPMessage message;
  message.addDate(0);
  const time_t after = time(nullptr);
  Strings possible;
  for (time_t t = before; t <= after; ++t) {
    HTTPMessage then;
    then.addDate(t);
    possible.push_back(then.getField("DATE"));
  }
  EXPECT_NE(std::find(possible.begin(), possible.end(), message.getField("DATE")), possible.end());
}

// Promise: A copied message is the whole message, and does not change with the other.
TEST(HTTPMessage, IsCopiedAsAWhole) {
  HTTPMessage original("POST / HTTP/1.1\r\nA: b\r\n\r\nbody");
  const HTTPMessage copy = original;
  original.addField("C", "d");
  original.startLine.clear();
  EXPECT_EQ(copy.get(), "POST / HTTP/1.1\r\nA: b\r\n\r\nbody");
  EXPECT_TRUE(copy.complete);
}

// Promise: What is written is read back as the same message.
TEST(HTTPMessage, ReadsWhatItWrites) {
  HTTPMessage message(HTTP_OK);
  message.addField("CONTENT-LENGTH", "6");
  message.addField("EXT", "");
  message.body = "a\r\n\r\nb";
  const HTTPMessage read(message.get());
  EXPECT_TRUE(read.complete);
  EXPECT_EQ(read.startLine, message.startLine);
  EXPECT_EQ(read.fieldNames, message.fieldNames);
  EXPECT_EQ(read.fieldValues, message.fieldValues);
  EXPECT_EQ(read.body, message.body);
}

// Promise: Any bytes at all may be read as a message, and each name keeps its own value.
TEST(HTTPMessage, TakesAnyBytesAndKeepsNamesAndValuesParallel) {
  std::mt19937 random(20240602);
  const std::string alphabet("\r\n: aB\0\xff", 8);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (size_t length = random() % 40; length > 0; --length) {
      text += alphabet[random() % alphabet.size()];
    }
    const HTTPMessage message(text);
    ASSERT_EQ(message.fieldNames.size(), message.fieldValues.size());
  }
  EXPECT_TRUE(HTTPMessage("GET / HTTP/1.1\r\n\r\n").complete);
}
