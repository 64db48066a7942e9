#pragma once

/// All that palinode-igd has in the file system.
namespace path {
inline constexpr const char* interfaceStore = "/lumen/store/upnp";
inline constexpr const char* settingsStore = "/lumen/store/upnpm";
inline constexpr const char* servedFiles = "/lumen/etc/upnp/";
}  // namespace path
