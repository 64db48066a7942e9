// Datagrams of NAT-PMP and PCP, up to the answers.

#include <algorithm>
#include <span>
#include <variant>
#include <vector>

#include "fuzz/Fuzz.h"
#include "pcp/codec/NatPmp.h"
#include "pcp/codec/Pcp.h"

namespace {

using fuzz::require;

void checkNatPmp(std::span<const uint8_t> datagram) {
  const auto request = pcp::natpmp::parseRequest(datagram);
  if (!request) return;
  require(pcp::natpmp::parseRequest(pcp::natpmp::write(*request)) == request,
          "a NAT-PMP request is read as it was written");
}

/// An answer has a length that a message can have, and is itself not answered.
void checkAnswer(const std::vector<uint8_t>& answer, size_t most) {
  require(answer.size() >= 24 && answer.size() <= most && answer.size() % 4 == 0,
          "an answer has the length of a message");
  require(!pcp::parseRequest(answer), "an answer is not answered");
}

void checkPcp(std::span<const uint8_t> datagram) {
  const auto parsed = pcp::parseRequest(datagram);
  if (!parsed) return;
  checkAnswer(pcp::writeError(datagram, pcp::ResultCode::noResources, 30, 1), 1100);
  const auto* request = std::get_if<pcp::Request>(&*parsed);
  if (request == nullptr) {
    require(std::get<pcp::ResultCode>(*parsed) != pcp::ResultCode::success,
            "what is refused has an error");
    return;
  }
  const std::vector<uint8_t> written = pcp::write(*request);
  require(written.size() <= datagram.size(), "a request does not grow");
  require(pcp::parseRequest(written) == parsed, "a request is read as it was written");
  checkAnswer(pcp::writeSuccess(*request, request->map.value_or(pcp::MapData()), 120, 1),
              datagram.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> datagram(data, size);
  checkNatPmp(datagram);
  checkPcp(datagram);
  return 0;
}
