// driver/control/proc_fields.h: the files of a node's folder in the status tree
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_PROC_FIELDS_H
#define TRAK_CONTROL_PROC_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "driver/block/device.h"

// Names of the files of a node of this type, in the order in which they are made. Null at the end.
const char *trak_proc_field_name(std::uint32_t dev_type, std::size_t index);
// Puts the text of a field into `page` of OS_PAGE_SIZE bytes; a name that the node's type lacks leaves
// it empty. The node table is held at least for reading; nothing else is locked.
void trak_proc_print_field(trak_device *dev, const char *name, char *page);

#endif
