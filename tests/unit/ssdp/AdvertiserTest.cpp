#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "http/Server.h"
#include "ssdp/Advertiser.h"
#include "ssdp/SsdpNetwork.h"

/// The gateway announces itself and receives its own announcements: the group loops back.
class Advertiser : public SsdpNetwork {
 protected:
  std::vector<std::string> announced(const SearchTargets& targets, bool byebye) {
    EXPECT_EQ(logged([&] { sendAdverts(discovery.get(), gatewayAddress, targets, byebye); }),
              "sendAdverts\n");
    return datagramsAt(discovery);
  }
};

// Promise [advert-fields]: An announcement is the datagram `NOTIFY * HTTP/1.1` with the fields
// `HOST: 239.255.255.250:1900`, `CACHE-CONTROL: max-age=3600`, `LOCATION:
// http://<address>:2828/gateway.xml`, `NT`, `NTS: ssdp:alive`, `SERVER` and `USN`, in this order.
// Promise [advert-burst]: A burst has one datagram for each search target, in the byte order of the
// targets, each sent once and without a delay.
// Promise: Each burst logs `sendAdverts`.
TEST_F(Advertiser, AnnouncesEachTargetInOrder) {
  const SearchTargets targets = {{"uuid:1", "uuid:1"},
                                 {"upnp:rootdevice", "uuid:1::upnp:rootdevice"}};
  EXPECT_EQ(announced(targets, false), (std::vector<std::string>{
                                           "NOTIFY * HTTP/1.1\r\n"
                                           "HOST: 239.255.255.250:1900\r\n"
                                           "CACHE-CONTROL: max-age=3600\r\n"
                                           "LOCATION: http://10.0.0.1:2828/gateway.xml\r\n"
                                           "NT: upnp:rootdevice\r\n"
                                           "NTS: ssdp:alive\r\n"
                                           "SERVER: " +
                                               SERVER_STRING +
                                               "\r\n"
                                               "USN: uuid:1::upnp:rootdevice\r\n\r\n",
                                           "NOTIFY * HTTP/1.1\r\n"
                                           "HOST: 239.255.255.250:1900\r\n"
                                           "CACHE-CONTROL: max-age=3600\r\n"
                                           "LOCATION: http://10.0.0.1:2828/gateway.xml\r\n"
                                           "NT: uuid:1\r\n"
                                           "NTS: ssdp:alive\r\n"
                                           "SERVER: " +
                                               SERVER_STRING +
                                               "\r\n"
                                               "USN: uuid:1\r\n\r\n",
                                       }));
}

// Promise: A goodbye is the datagram `NOTIFY * HTTP/1.1` with the fields `HOST:
// 239.255.255.250:1900`, `NT`, `NTS: ssdp:byebye` and `USN`, in this order: neither `CACHE-CONTROL`
// nor `LOCATION` nor `SERVER`.
TEST_F(Advertiser, SaysGoodbyeWithoutALocation) {
  EXPECT_EQ(announced({{"upnp:rootdevice", "uuid:1::upnp:rootdevice"}}, true),
            (std::vector<std::string>{"NOTIFY * HTTP/1.1\r\n"
                                      "HOST: 239.255.255.250:1900\r\n"
                                      "NT: upnp:rootdevice\r\n"
                                      "NTS: ssdp:byebye\r\n"
                                      "USN: uuid:1::upnp:rootdevice\r\n\r\n"}));
}

// Promise: Equal targets of several devices are announced once each, with their own USN, in the
// order of the device tree.
TEST_F(Advertiser, AnnouncesEqualTargetsOnceEach) {
  const auto datagrams = announced({{"urn:x", "uuid:2"}, {"urn:x", "uuid:1"}}, true);
  ASSERT_EQ(datagrams.size(), 2U);
  EXPECT_EQ(HTTPMessage(datagrams[0]).getField("USN"), "uuid:2");
  EXPECT_EQ(HTTPMessage(datagrams[1]).getField("USN"), "uuid:1");
}

// Promise: Where there is no target there is no datagram.
TEST_F(Advertiser, SendsNothingWithoutTargets) { EXPECT_TRUE(announced({}, false).empty()); }

// Promise: Announcements leave from the interface's discovery socket, so from port 1900.
TEST_F(Advertiser, SendsFromTheDiscoverySocket) {
  sendAdverts(discovery.get(), gatewayAddress, {{"urn:x", "uuid:1"}}, false);
  EXPECT_EQ(senderPortAt(discovery), SSDP_PORT);
}

// Promise: A datagram that cannot be sent logs `advert sendto failed: ` with the system's error
// text, and the rest of the burst is sent.
TEST_F(Advertiser, LogsEachFailureAndGoesOn) {
  const SearchTargets targets = {{"a", "1"}, {"b", std::string(70000, 'x')}, {"c", "3"}};
  EXPECT_EQ(logged([&] { sendAdverts(discovery.get(), gatewayAddress, targets, true); }),
            std::string("sendAdverts\nadvert sendto failed: ") + strerror(EMSGSIZE) + "\n");
  EXPECT_EQ(datagramsAt(discovery).size(), 2U);
  EXPECT_EQ(logged([&] {
              sendAdverts(-1, gatewayAddress, {{"a", "1"}, {"b", "2"}}, true);
            }),
            "sendAdverts\n"
            "advert sendto failed: Bad file descriptor\n"
            "advert sendto failed: Bad file descriptor\n");
}

// Also proves [advert-period].
TEST(AdvertInterval, IsThirtySecondsLessThanTheMaxAge) {
  EXPECT_EQ(MAX_AGE, 3600U);            // seconds
  EXPECT_EQ(ADVERT_INTERVAL, 357000U);  // hundredths of a second
}
