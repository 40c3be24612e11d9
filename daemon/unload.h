// daemon/unload.h: the orderly end of the driver
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAKD_UNLOAD_H
#define TRAKD_UNLOAD_H

#include <string>

#include "daemon/server.h"

namespace trakd {

// The nodes in use, for a person: "trak0 (disk0, mounted at /mnt)", joined by commas; empty when
// none is. Sleeps.
std::string nodes_in_use();

// Stops every node, saves every bitmap, unloads the driver, and takes away the session markers of
// filters for which all that went well. 0; -EBUSY while a node is in use, with *why telling which:
// the server goes on; or another negative errno, likewise. Waits for commands under way; new ones
// are refused meanwhile, and from then on when it succeeds.
[[nodiscard]] int unload(Server *server, std::string *why);

}  // namespace trakd

#endif
