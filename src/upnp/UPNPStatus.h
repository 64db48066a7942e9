#pragma once

#include <string>

/// The result of an action: 0, or a UPnP error code, which the control point receives in a SOAP
/// fault. 401 to 501 come from the UPnP Device Architecture 1.0, section 3.2.2, the 700s from
/// WANIPConnection:1, section 2.4.
enum UPNPStatus : int {
  UPNP_SUCCESS = 0,
  UPNP_INVALID_ACTION = 401,
  UPNP_INVALID_ARGS = 402,
  UPNP_OUT_OF_SYNC = 403,
  UPNP_INVALID_VAR = 404,
  UPNP_ACTION_FAILED = 501,
  UPNP_SPECIFIED_ARRAY_INDEX_INVALID = 713,
  UPNP_NO_SUCH_ENTRY_IN_ARRAY = 714,
  UPNP_WILDCARD_NOT_PERMITTED_IN_EXT_PORT = 716,
  UPNP_CONFLICT_IN_MAPPING_ENTRY = 718,
  UPNP_ONLY_PERMANENT_LEASES_SUPPORTED = 725,
  UPNP_REMOTE_HOST_ONLY_SUPPORTS_WILDCARD = 726,
};

/// The errorDescription of a code; empty for success and for a code not listed above.
[[nodiscard]] std::string upnpStatusText(UPNPStatus status);
