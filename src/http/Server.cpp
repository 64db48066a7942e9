#include "http/Server.h"

#include "base/Text.h"
#include "net/Address.h"
#include "platform/System.h"

// The platform's text ends with the blank that separates the tokens.
const std::string SERVER_STRING = "Palinode/" + getOSVersion() + "UPnP/1.0 Kestrava UPnP/1.0";

std::string serverUrl(uint32_t address) {
  return "http://" + iptostr(address) + ":" + uinttostr(HTTP_PORT);
}
