#include "igd/DeviceStats.h"

#include "base/Log.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/Interfaces.h"

DeviceStats getDeviceStats(uint32_t interfaceId) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, lm::interfaces::path());
  request.insert_u32(lm::key::objectId, interfaceId);
  request.insert_u32(lm::interfaces::key::readOptions, lm::interfaces::withCounters);
  const lm::message reply =
      lm::getLooper().exchangeCmd(request, lm::cmd::readObject, lm::exchangeLimit);
  if (lm::isError(reply)) logLine("get device stats: ", lm::getError(reply));

  // Control points expect 32-bit counters that wrap.
  const auto counter = [&reply](uint32_t key) { return static_cast<uint32_t>(reply.get_u64(key)); };
  return {counter(lm::interfaces::key::packetsReceived), counter(lm::interfaces::key::packetsSent),
          counter(lm::interfaces::key::bytesReceived), counter(lm::interfaces::key::bytesSent)};
}
