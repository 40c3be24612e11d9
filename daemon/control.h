// daemon/control.h: what requests do that enter the driver otherwise than by I/O
// SPDX-License-Identifier: GPL-2.0-only
//
// Context of all: a worker; they wait for locks of the driver and for I/O. Results: 0 (or a
// count), or a negative errno. pid: the caller, whose memory commands reach.
#ifndef TRAKD_CONTROL_H
#define TRAKD_CONTROL_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/server.h"

namespace trakd {

// Opens the entry; fills *handle, which the caller then adds to the server.
[[nodiscard]] int control_open(Server *server, Ino ino, int flags, pid_t pid, Handle *handle);
void control_close(Server *server, Handle *handle);
// At most `size` bytes at `offset` of the control device's or a text file's contents.
[[nodiscard]] long control_read(Server *server, Handle *handle, std::uint64_t offset,
                                std::size_t size, pid_t pid, std::string *text);
[[nodiscard]] long control_write(Server *server, Handle *handle, std::uint64_t offset,
                                 std::string_view text, pid_t pid);
// Runs a command of the control device or of a node for the caller of req: *record lies at `arg`
// in the caller and takes what the driver writes there. A signal to the caller while the request
// is under way reaches the driver's task.
[[nodiscard]] int control_ioctl(Server *server, fuse_req_t req, Handle *handle, std::uint32_t cmd,
                                os_uaddr arg, std::vector<std::uint8_t> *record);

}  // namespace trakd

#endif
