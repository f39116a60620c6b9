// Host identity checks of the product's network library.
#pragma once

// True when `name` (a host name or a numeric address) is this host: it equals
// this host's name or "localhost" (case ignored), or one of its addresses is a
// loopback address or an address of a local network interface. Null, empty
// or unresolvable names are not local. May block on name resolution.
bool vrnet_is_local_host(const char* name);

// True when `peer` is the master server: the first SERVER of the master
// configuration, matched by name (case ignored) or by a shared address. Reads
// the master configuration when no copy has been read yet; false when there is
// none or it names no server.
bool vrnet_is_master_server(const char* peer);
