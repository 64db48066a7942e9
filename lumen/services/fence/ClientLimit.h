#pragma once

#include "lumen/services/system/netfilter/Nftables.h"

namespace lumen {

/// Lets the kernel refuse what goes beyond 32 connections at a time from one address to the
/// gateway. Such a host then fills neither the gateway's queue, which holds one connection and
/// costs the next client a second when it is full, nor its limits. The table is one of this
/// process's and ends with it. A kernel that cannot count connections is reported in the log: the
/// gateway's own limits remain.
void limitClients(Nftables& nftables);

}  // namespace lumen
