#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "lumen/runtime/Time.h"
#include "platform/Looper.h"
#include "support/LogCapture.h"
#include "support/PrivateNetwork.h"
#include "support/TestPlatform.h"
#include "upnp/Service.h"
#include "upnp/Subscriber.h"
#include "upnp/Subscription.h"

/// A service with evented and other variables.
class EventedLamp : public Service {
 public:
  EventedLamp() : Service("urn:schemas-example:service:Lamp:1") {
    addVar("State", {makeContainer("On", "Off"), true}).setValue("Off");
    addVar("Colour", {VAR_STRING, true}).setValue("red");
    addVar("Hours", {VAR_UI4, false}).setValue("7");
    brightness = &addVar("Brightness", {VAR_UI2, true});
  }

  Variable* brightness = nullptr;  ///< evented, without a value at first
};

/// A lamp, its control points, and the time between them.
class LampEvents : public testing::Test {
 protected:
  /// Subscribes; returns the SID, empty when it was refused.
  std::string subscribe(const Subscriber& who, const std::string& timeout = "Second-1800") {
    return lamp->subscribe(who.subscribeRequest(timeout)).getField("SID");
  }
  /// Subscribes, and takes and answers the initial event.
  std::string subscribeAndHear(Subscriber& who) {
    std::string sid = subscribe(who);
    passInitialDelay();
    who.notifyAndAnswer();
    return sid;
  }
  /// Subscribes and takes the initial event, which is not answered.
  void takeInitialEvent(Subscriber& who) {
    subscribe(who);
    passInitialDelay();
    EXPECT_EQ(who.notify().getField("SEQ"), "0");
  }
  HTTPMessage renew(const std::string& sid, const std::string& timeout = "Second-1800") {
    HTTPMessage request;
    request.addField("SID", sid);
    request.addField("TIMEOUT", timeout);
    return lamp->subscribe(request);
  }
  HTTPMessage unsubscribe(const std::string& sid) {
    HTTPMessage request;
    request.addField("SID", sid);
    return lamp->unsubscribe(request);
  }
  static constexpr std::chrono::milliseconds initialDelay =
      lumen::Centiseconds(Subscription::initialEventDelay);

  void passInitialDelay() { platform.advance(initialDelay); }
  [[nodiscard]] int linesOf(const std::string& line) {
    const std::string text = log.text();
    int count = 0;
    for (size_t at = 0; (at = text.find(line + "\n", at)) != std::string::npos; ++at) ++count;
    return count;
  }

  PrivateNetwork network;
  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
  lm::test::LogCapture log;
  std::optional<EventedLamp> lamp{std::in_place};
};
