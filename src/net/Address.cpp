#include "net/Address.h"

#include <arpa/inet.h>

#include "base/Text.h"

uint32_t strtoip(const std::string& text) { return inet_addr(text.c_str()); }

std::string iptostr(uint32_t address) {
  const uint32_t number = ntohl(address);
  return uinttostr(number >> 24) + "." + uinttostr(number >> 16 & 0xff) + "." +
         uinttostr(number >> 8 & 0xff) + "." + uinttostr(number & 0xff);
}

uint32_t iptonumber(uint32_t address) { return ntohl(address); }
