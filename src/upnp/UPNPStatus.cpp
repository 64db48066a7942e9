#include "upnp/UPNPStatus.h"

std::string upnpStatusText(UPNPStatus status) {
  switch (status) {
    case UPNP_SUCCESS:
      break;
    case UPNP_INVALID_ACTION:
      return "Invalid Action";
    case UPNP_INVALID_ARGS:
      return "Invalid Args";
    case UPNP_OUT_OF_SYNC:
      return "Out of Sync";
    case UPNP_INVALID_VAR:
      return "Invalid Var";
    case UPNP_ACTION_FAILED:
      return "Action Failed";
    case UPNP_SPECIFIED_ARRAY_INDEX_INVALID:
      return "SpecifiedArrayIndexInvalid";
    case UPNP_NO_SUCH_ENTRY_IN_ARRAY:
      return "NoSuchEntryInArray";
    case UPNP_WILDCARD_NOT_PERMITTED_IN_EXT_PORT:
      return "WildcardNotPermittedInExtPort";
    case UPNP_CONFLICT_IN_MAPPING_ENTRY:
      return "ConflictInMappingEntry";
    case UPNP_ONLY_PERMANENT_LEASES_SUPPORTED:
      return "OnlyPermanentLeasesSupported";
    case UPNP_REMOTE_HOST_ONLY_SUPPORTS_WILDCARD:
      return "RemoteHostOnlySupportsWildcard";
  }
  return {};
}
