#include "lumen/values/KernelVersion.h"

#include <charconv>

namespace lumen {

std::optional<KernelVersion> KernelVersion::parse(std::string_view release) {
  KernelVersion version;
  const char* const end = release.data() + release.size();
  const auto major = std::from_chars(release.data(), end, version.major);
  if (major.ec != std::errc() || major.ptr == end || *major.ptr != '.') return std::nullopt;
  const auto minor = std::from_chars(major.ptr + 1, end, version.minor);
  if (minor.ec != std::errc()) return std::nullopt;
  return version;
}

std::string KernelVersion::text() const {
  return std::to_string(major) + '.' + std::to_string(minor);
}

}  // namespace lumen
