#pragma once

/// Gives up what palinode-igd does not need from its platform's connection on: a process that is
/// taken over by what it reads can then do little more than the daemon itself. It opens its stores
/// and the served files only (allowOnlyFiles), and makes the system calls of its list only
/// (allowOnly). To be called before the first byte of a LAN host is read.
void confineGateway();
