#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "ssdp/Advertiser.h"
#include "ssdp/Datagram.h"
#include "ssdp/SsdpNetwork.h"

using ErrorText = SsdpNetwork;

// A result, not errno: what is destroyed on the way back may change that.
TEST_F(ErrorText, OfADatagramIsReturned) {
  errno = 0;
  EXPECT_EQ(sendDatagram(-1, HTTPMessage(HTTP_OK), {}), EBADF);
}

TEST_F(ErrorText, OfAnAdvertIsThatOfItsSending) {
  const SearchTargets targets = {{"a", "1"}, {"b", std::string(70000, 'x')}};
  const std::string log = logged([&] {
    sendAdverts(discovery.get(), gatewayAddress, targets, true);
    sendAdverts(-1, gatewayAddress, {{"a", "1"}}, true);
  });
  EXPECT_EQ(log, std::string("sendAdverts\nadvert sendto failed: ") + strerror(EMSGSIZE) +
                     "\nsendAdverts\nadvert sendto failed: Bad file descriptor\n");
}
