#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lumen/web/HostNames.h"
#include "lumen/web/Picture.h"

/// The picture of the router as texts that browsers and programs read.
namespace lumen::web {

/// For the script of the page, each in JSON.
[[nodiscard]] std::string stateJson(const Picture& picture);
[[nodiscard]] std::string portJson(const lumenctl::NatRule& rule, const HostNames& names);
[[nodiscard]] std::string pinholeJson(const lumenctl::Pinhole& pinhole);
[[nodiscard]] std::string happeningJson(const Happening& happening);
[[nodiscard]] std::string sampleJson(const Sample& sample);

/// An event of a stream (HTML Living Standard, "Server-sent events"). `data` has no line ends.
[[nodiscard]] std::string event(std::string_view name, std::string_view data);

/// The page: `form` with the picture in the place of its marks, {{state}} and others.
[[nodiscard]] std::string pageOf(std::string_view form, const Picture& picture,
                                 const HostNames& names);

/// In the Prometheus text format, version 0.0.4. `uptime` is the router's, in seconds.
[[nodiscard]] std::string metricsOf(const Picture& picture, uint32_t uptime, uint64_t listeners);

}  // namespace lumen::web
