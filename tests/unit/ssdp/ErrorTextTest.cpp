#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "ssdp/Advertiser.h"
#include "ssdp/Datagram.h"
#include "ssdp/SsdpNetwork.h"

// The memory functions of this program. POSIX.1-2017 lets free() change errno, though the C library
// of this machine may not do so.

namespace {

/// Whether freeing memory changes errno.
bool freeingChangesErrno = false;

// NOLINTBEGIN(cppcoreguidelines-owning-memory): memory has no owner below operator new.
void* allocate(size_t bytes) { return malloc(bytes == 0 ? 1 : bytes); }

void release(void* memory) {
  free(memory);
  if (freeingChangesErrno) errno = ENOTTY;
}
// NOLINTEND(cppcoreguidelines-owning-memory)

class FreeingChangesErrno {
 public:
  FreeingChangesErrno() { freeingChangesErrno = true; }
  FreeingChangesErrno(const FreeingChangesErrno&) = delete;
  FreeingChangesErrno& operator=(const FreeingChangesErrno&) = delete;
  ~FreeingChangesErrno() { freeingChangesErrno = false; }
};

}  // namespace

void* operator new(size_t bytes) {
  void* memory = allocate(bytes);
  if (memory == nullptr) abort();
  return memory;
}
void* operator new(size_t bytes, const std::nothrow_t& /*tag*/) noexcept { return allocate(bytes); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, size_t /*bytes*/) noexcept { release(memory); }

using ErrorText = SsdpNetwork;

TEST_F(ErrorText, OfAnAdvertIsThatOfItsSendingWhateverIsFreedAfterIt) {
  const SearchTargets targets = {{"a", "1"}, {"b", std::string(70000, 'x')}};
  const std::string log = logged([&] {
    const FreeingChangesErrno now;
    sendAdverts(discovery.get(), gatewayAddress, targets, true);
    sendAdverts(-1, gatewayAddress, {{"a", "1"}}, true);
  });
  EXPECT_EQ(log,
            "sendAdverts\n"
            "advert sendto failed: Message too long\n"
            "sendAdverts\n"
            "advert sendto failed: Bad file descriptor\n");
}

TEST_F(ErrorText, OfADatagramIsReturned) {
  const FreeingChangesErrno now;
  EXPECT_EQ(sendDatagram(-1, HTTPMessage(HTTP_OK), {}), EBADF);
}
