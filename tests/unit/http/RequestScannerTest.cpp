#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <random>

#include "http/HTTPMessage.h"
#include "http/RequestScanner.h"

namespace {

/// Receives `text` in pieces that end at `ends`, as a connection does: until the first time that it
/// is complete. After each piece the scanner must say what a parse of all bytes says.
void expectTheSameAsParsing(const std::string& text, const std::vector<size_t>& ends) {
  RequestScanner scanner;
  for (const size_t end : ends) {
    const std::string received = text.substr(0, end);
    const bool complete = HTTPMessage(received).complete;
    ASSERT_EQ(scanner.complete(received), complete) << testing::PrintToString(received);
    if (complete) return;
  }
}

std::vector<size_t> everyByte(const std::string& text) {
  std::vector<size_t> ends;
  for (size_t end = 1; end <= text.size(); ++end) ends.push_back(end);
  return ends;
}

double cpuMilliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// The processor time that receiving `text` byte by byte takes.
double timeByteByByte(const std::string& text, bool& complete) {
  RequestScanner scanner;
  std::string buffer;
  const double start = cpuMilliseconds();
  for (const char c : text) {
    buffer.push_back(c);
    complete = scanner.complete(buffer);
  }
  return cpuMilliseconds() - start;
}

/// The best of some runs: what else the machine does takes from the caches.
double fastest(const std::string& text, bool& complete) {
  double best = timeByteByByte(text, complete);
  for (int run = 1; run < 5; ++run) best = std::min(best, timeByteByByte(text, complete));
  return best;
}

const std::vector<std::string> requests = {
    "",
    "\r",
    "\r\n\r\n",
    "GET / HTTP/1.1\r\n\r\n",
    "GET / HTTP/1.1\r\nHost: a\r\n\r\n",
    "GET / HTTP/1.1\nHost: a\n\n",
    "GET / HTTP/1.1\rxHost: a\ry\rz",
    "GET / HTTP/1.1\r\r\r\r",
    "GET / HTTP/1.1\r\nHost: a\r\nnonsense\r\n\r\n",
    "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nabcdefgh",
    "POST / HTTP/1.1\r\ncontent-length:5\r\nCONTENT-LENGTH: 1\r\n\r\nabcdefgh",
    "POST / HTTP/1.1\r\nContent-Length : 3\r\n\r\nabcd",
    "POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
    "POST / HTTP/1.1\r\nContent-Length: \r\n\r\nabc",
    "POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\nabc",
    "POST / HTTP/1.1\r\nA: b\r\nContent-Length: 12\r\nC: d\r\n\r\nab\r\ncd\r\n\r\nef\r\n",
    "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n",
};

}  // namespace

// Promise: Whether a request is complete does not depend on the pieces in which it comes.
TEST(RequestScanner, AgreesWithTheParserAfterEachByte) {
  for (const std::string& text : requests) expectTheSameAsParsing(text, everyByte(text));
}

TEST(RequestScanner, AgreesWithTheParserAfterEachPairOfPieces) {
  for (const std::string& text : requests) {
    for (size_t cut = 1; cut < text.size(); ++cut) {
      expectTheSameAsParsing(text, {cut, text.size()});
    }
    expectTheSameAsParsing(text, {text.size()});
  }
}

TEST(RequestScanner, AgreesWithTheParserOnRandomTextInRandomPieces) {
  std::mt19937 random(20240603);
  const std::vector<std::string> words = {
      "\r\n", "\r", "\n", ":", " ", "a", "Content-Length:", "1", "2", "3", "\r\n\r\n", "x: y\r\n"};
  for (int round = 0; round < 20000; ++round) {
    std::string text = random() % 2 == 0 ? "GET / HTTP/1.1\r\n" : "";
    for (size_t count = random() % 12; count > 0; --count) text += words[random() % words.size()];
    std::vector<size_t> ends;
    for (size_t end = 0; end < text.size();) {
      end = std::min(text.size(), end + 1 + random() % 6);
      ends.push_back(end);
    }
    ASSERT_NO_FATAL_FAILURE(expectTheSameAsParsing(text, ends));
  }
}

// Promise: A request that has once had a byte too many stays incomplete.
TEST(RequestScanner, CompletesOnlyWhenAReadEndsWithTheBody) {
  const std::string head = "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\n";
  RequestScanner exact;
  EXPECT_FALSE(exact.complete(head + "ab"));
  EXPECT_TRUE(exact.complete(head + "abc"));
  RequestScanner past;
  EXPECT_FALSE(past.complete(head + "ab"));
  EXPECT_FALSE(past.complete(head + "abcd"));
  EXPECT_FALSE(past.complete(head + "abcde"));
}

// Also proves [request-size], [request-rest].
TEST(RequestScanner, KnowsTheSizeOfACompleteRequest) {
  const struct {
    std::string request;
    std::string after;
    const char* what;
  } rows[] = {
      {"GET / HTTP/1.1\r\n\r\n", "", "a header"},
      {"GET / HTTP/1.1\r\n\r\n", "GET /2 HTTP/1.1\r\n\r\n", "a header before a request"},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", "", "a body"},
      {"POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n", "", "an empty body"},
  };
  for (const auto& [request, after, what] : rows) {
    RequestScanner scanner;
    EXPECT_TRUE(scanner.complete(request + after)) << what;
    EXPECT_EQ(scanner.size(), request.size()) << what;
  }
}

// Promise: The time to read a request grows with its bytes and not with the pieces in which they
// come.
TEST(RequestScanner, TakesTimeProportionalToTheBytes) {
  constexpr size_t size = 128UL * 1024;
  const std::string head = "POST / HTTP/1.1\r\nContent-Length: 131072\r\n\r\n";
  std::string manyLines = "GET / HTTP/1.1\r\n";
  while (manyLines.size() < size) manyLines += "a:b\r\n";
  const struct {
    std::string text;
    bool completes;
    const char* what;
  } cases[] = {
      {head + std::string(size, 'x'), true, "a large body"},
      {std::string(size, 'x'), false, "a start line that never ends"},
      {"GET / HTTP/1.1\r\na:" + std::string(size, 'x'), false, "a field that never ends"},
      {manyLines, false, "fields that never end"},
      {"GET / HTTP/1.1\r\nnonsense\r\n" + std::string(size, '\r'), false, "a lost request"},
  };
  for (const auto& [text, completes, what] : cases) {
    bool complete = false;
    // The eighth part takes an eighth of the time; were the bytes looked at again, a sixty-fourth.
    const double part = fastest(text.substr(0, text.size() / 8), complete);
    EXPECT_LT(fastest(text, complete), part * 16) << what;
    EXPECT_EQ(complete, completes) << what;
  }
}
