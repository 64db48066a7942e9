#include <netinet/in.h>

#include "http/Server.h"
#include "ssdp/Advertiser.h"
#include "ssdp/SsdpNetwork.h"

/// The gateway announces itself, and hears itself, since the group loops back.
class Advertiser : public SsdpNetwork {
 protected:
  std::vector<std::string> announced(const SearchTargets& targets, bool byebye) {
    EXPECT_EQ(logged([&] { sendAdverts(discovery.get(), gatewayAddress, targets, byebye); }),
              "sendAdverts\n");
    return datagramsAt(discovery);
  }
};

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

TEST_F(Advertiser, TakesBackWithoutSayingWhere) {
  EXPECT_EQ(announced({{"upnp:rootdevice", "uuid:1::upnp:rootdevice"}}, true),
            (std::vector<std::string>{"NOTIFY * HTTP/1.1\r\n"
                                      "HOST: 239.255.255.250:1900\r\n"
                                      "NT: upnp:rootdevice\r\n"
                                      "NTS: ssdp:byebye\r\n"
                                      "USN: uuid:1::upnp:rootdevice\r\n\r\n"}));
}

TEST_F(Advertiser, AnnouncesEqualTargetsOnceEach) {
  const auto datagrams = announced({{"urn:x", "uuid:2"}, {"urn:x", "uuid:1"}}, true);
  ASSERT_EQ(datagrams.size(), 2U);
  EXPECT_EQ(HTTPMessage(datagrams[0]).getField("USN"), "uuid:2");
  EXPECT_EQ(HTTPMessage(datagrams[1]).getField("USN"), "uuid:1");
}

TEST_F(Advertiser, HasNothingToSayWithoutTargets) { EXPECT_TRUE(announced({}, false).empty()); }

TEST_F(Advertiser, SendsFromTheDiscoverySocket) {
  sendAdverts(discovery.get(), gatewayAddress, {{"urn:x", "uuid:1"}}, false);
  std::array<char, 2048> bytes;
  sockaddr_in sender = {};
  socklen_t length = sizeof sender;
  EXPECT_GT(recvfrom(discovery.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&sender), &length),
            0);
  EXPECT_EQ(ntohs(sender.sin_port), SSDP_PORT);
}

TEST_F(Advertiser, LogsEachFailureAndGoesOn) {
  const SearchTargets targets = {{"a", "1"}, {"b", std::string(70000, 'x')}, {"c", "3"}};
  EXPECT_EQ(logged([&] { sendAdverts(discovery.get(), gatewayAddress, targets, true); }),
            "sendAdverts\n"
            "advert sendto failed: Message too long\n");
  EXPECT_EQ(datagramsAt(discovery).size(), 2U);
  EXPECT_EQ(logged([&] {
              sendAdverts(-1, gatewayAddress, {{"a", "1"}, {"b", "2"}}, true);
            }),
            "sendAdverts\n"
            "advert sendto failed: Bad file descriptor\n"
            "advert sendto failed: Bad file descriptor\n");
}

TEST(AdvertInterval, IsThirtySecondsShortOfTheMaxAge) {
  EXPECT_EQ(MAX_AGE, 3600U);            // seconds
  EXPECT_EQ(ADVERT_INTERVAL, 357000U);  // hundredths of a second
}
