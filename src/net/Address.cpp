#include "net/Address.h"

#include <arpa/inet.h>

uint32_t strtoip(const std::string& text) { return inet_addr(text.c_str()); }

std::string iptostr(uint32_t address) { return inet_ntoa(in_addr{address}); }

uint32_t iptonumber(uint32_t address) { return ntohl(address); }
