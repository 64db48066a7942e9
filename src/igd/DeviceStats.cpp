#include "igd/DeviceStats.h"

#include "base/Log.h"
#include "platform/Keys.h"
#include "platform/Looper.h"

namespace {

// Fields of an interface's record, u64 each.
constexpr uint32_t bytesReceived = 0x100100fc;
constexpr uint32_t bytesSent = 0x100100fd;
constexpr uint32_t packetsReceived = 0x100100fe;
constexpr uint32_t packetsSent = 0x100100ff;

// What a read may ask for besides, and the value that the interface table knows.
constexpr uint32_t readOptions = 0x08fe000c;
constexpr uint32_t withCounters = 256;

}  // namespace

DeviceStats getDeviceStats(uint32_t interfaceId) {
  lm::message request;
  request.insert_u32_array(lm::key::destination,
                           {lm::service::interfaces, lm::handler::interfaces});
  request.insert_u32(lm::key::objectId, interfaceId);
  request.insert_u32(readOptions, withCounters);
  const lm::message reply =
      lm::getLooper().exchangeCmd(request, lm::cmd::readObject, lm::exchangeLimit);
  if (lm::isError(reply)) logLine("get device stats: ", lm::getError(reply));

  // Control points expect counters of 32 bits that wrap.
  const auto counter = [&reply](uint32_t key) { return static_cast<uint32_t>(reply.get_u64(key)); };
  return {counter(packetsReceived), counter(packetsSent), counter(bytesReceived),
          counter(bytesSent)};
}
