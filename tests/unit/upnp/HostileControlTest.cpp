#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "upnp/Service.h"
#include "upnp/SoapRequest.h"

namespace {

const std::string type = "urn:schemas-example:service:Door:1";

class Door : public Service {
 public:
  Door() : Service(type) {
    addVar("Key", {VAR_STRING, false});
    addVar("Number", {VAR_UI2, false}).setValue("1");
    addAct("Open", {"Key", "Number"}, {"NewKey", "NewNumber"}, {"Key"}, {"OldKey"}, this,
           &Door::open);
    addAct("Get", {"Number"});
  }
  UPNPStatus open(const std::vector<std::string>& in, std::vector<std::string>& out) {
    out.push_back(in[0]);
    return UPNP_SUCCESS;
  }
};

/// An untrusted LAN host; every reply must be one that a control point understands, and every
/// request leaves a line in the log.
class HostileControl : public ::testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_GE(std::count(log.begin(), log.end(), '\n'), requests);
  }

  /// The start line of the reply.
  std::string answer(const HTTPMessage& request) {
    ++requests;
    return door.post(request).startLine;
  }

  void attack(const HTTPMessage& request) {
    const std::string line = answer(request);
    EXPECT_TRUE(line == "HTTP/1.1 200 OK" || line == "HTTP/1.1 400 Bad Request" ||
                line == "HTTP/1.1 500 Internal Server Error")
        << line;
  }

  void stillOpens() {
    const HTTPMessage reply = door.post(good);
    EXPECT_EQ(reply.startLine, "HTTP/1.1 200 OK");
    EXPECT_NE(reply.body.find("<OldKey>brass</OldKey>"), std::string::npos);
  }

  Door door;
  const SoapRequest good =
      actionRequest(type, "Open", "<NewKey>brass</NewKey><NewNumber>7</NewNumber>");
  std::mt19937 random{20240229};
  std::ptrdiff_t requests = 0;
};

// Promise: A request that is cut, changed or made of random bytes is answered with 200, 400 or a
// fault, and the next good one with what it asks for.
TEST_F(HostileControl, RefusesABodyCutAnywhere) {
  for (size_t length = 0; length < good.body.size(); ++length) {
    SoapRequest request = good;
    request.body.resize(length);
    EXPECT_EQ(answer(request), "HTTP/1.1 400 Bad Request") << length;
  }
  stillOpens();
}

TEST_F(HostileControl, SurvivesRandomBytes) {
  for (int round = 0; round < 2000; ++round) {
    SoapRequest request = good;
    request.body.resize(random() % 300);
    for (char& c : request.body) c = static_cast<char>(random());
    attack(request);
  }
  stillOpens();
}

TEST_F(HostileControl, SurvivesChangedBytes) {
  for (int round = 0; round < 5000; ++round) {
    SoapRequest request = good;
    for (std::string* text : {&request.body, &request.soapAction, &request.contentType}) {
      if (random() % 4 == 0) (*text)[random() % text->size()] = static_cast<char>(random());
    }
    for (auto changes = random() % 4; changes > 0; --changes) {
      request.body[random() % request.body.size()] = "<>/&\"'= :#;x\r\n\t"[random() % 15];
    }
    attack(request);
  }
  stillOpens();
}

TEST_F(HostileControl, SurvivesElementsInAnyOrderAndNumber) {
  const std::vector<std::string> pieces = {
      "<NewKey>", "</NewKey>", "<NewNumber>", "</NewNumber>", "<u:Open>", "</u:Open>",
      "<s:Body>", "</s:Body>", "<Open/>",     "<NewKey/>",    "&lt;",     "&#x41;",
      "70000",    "text",      "<![CDATA[",   "]]>",          "<!--",     "-->",
      "<?x y?>",  " ",         "<Get/>",      "<:/>",         "<a:b:c/>",
  };
  for (int round = 0; round < 5000; ++round) {
    SoapRequest request = good;
    std::string inner;
    for (auto count = random() % 12; count > 0; --count) inner += pieces[random() % pieces.size()];
    request.body = envelope(inner);
    if (random() % 2 == 0) request.soapAction = "Get";
    attack(request);
  }
  stillOpens();
}

// Promise [xml-depth-400]: A request in which elements are nested deeper than 64 gets 400.
TEST_F(HostileControl, RefusesElementsNestedWithoutEnd) {
  const auto nested = [this](size_t depth) {
    SoapRequest request = good;
    std::string inner;
    for (size_t i = 0; i < depth; ++i) inner += "<a>";
    for (size_t i = 0; i < depth; ++i) inner += "</a>";
    request.body = envelope("<u:Open>" + inner + "</u:Open>");
    return request;
  };
  const size_t around = 3;  // Envelope, Body and Open
  EXPECT_EQ(answer(nested(64 - around)), "HTTP/1.1 500 Internal Server Error");
  EXPECT_EQ(answer(nested(65 - around)), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(answer(nested(20000)), "HTTP/1.1 400 Bad Request");
  stillOpens();
}

// Promise [xml-entities-400]: Entities that grow without bound get 400, and cost little time.
TEST_F(HostileControl, RefusesEntitiesThatGrow) {
  SoapRequest request = good;
  std::string entities = "<!ENTITY e0 \"0123456789\">";
  for (int i = 1; i < 12; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    entities += "<!ENTITY e" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) entities += inner;
    entities += "\">";
  }
  request.body = "<!DOCTYPE x [" + entities + "]>" +
                 envelope("<Open><NewKey>&e11;</NewKey></Open>").substr(23);
  EXPECT_EQ(answer(request), "HTTP/1.1 400 Bad Request");
  stillOpens();
}

}  // namespace
