// agent/base.cpp: whether a backup can build on what a store holds
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/base.h"

#include <fmt/format.h>

namespace agent {

std::string fault_of_base(const Store &store, const FilterNode &filter, const Manifest *base,
                          Kind kind) {
    if (base == nullptr)
        return store.damaged().empty() ? "the store holds no backup to build on"
                                       : store.damaged().front().why;
    for (const DamagedEntry &entry : store.damaged())
        if (entry.id > base->id)
            return entry.why;  // perhaps the one to build on
    if (base->node.uuid != filter.id.uuid)
        return fmt::format("node {} is not the one of the last backup (uuid {} then, {} now)",
                           filter.id.minor, base->node.uuid, filter.id.uuid);
    if (base->node.size != filter.id.size)
        return fmt::format("the disk's size has changed ({} bytes at the last backup, {} now)",
                           base->node.size, filter.id.size);
    if (base->node.extent_size != filter.id.extent_size)
        return fmt::format("the extent size has changed ({} bytes at the last backup, {} now)",
                           base->node.extent_size, filter.id.extent_size);
    MapOwner owner = map_owner(filter);
    if (!owner.store.empty() && owner.store != store.head().store)
        return fmt::format("the maps were last cleared for another store ({})", owner.folder);
    uint64_t cleared = kind == Kind::incr ? owner.incr : owner.diff;
    if (!owner.store.empty() && base->number < cleared)
        return fmt::format(
            "the {} map was last cleared for backup {:06}, which is not in the store",
            kind_name(kind), cleared);
    if (kind == Kind::incr ? filter.incr_full : filter.diff_full)
        return fmt::format("the {} map says that every extent has changed, as after a stop without "
                           "order",
                           kind_name(kind));
    try {
        for (const Manifest *manifest : store.chain(base->id))
            for (const FileEntry *entry : {&manifest->image, &manifest->hashes, &manifest->map})
                if (files::size_of(store.path(entry->file)) != entry->size)
                    return fmt::format("{} has another size than when it was made",
                                       store.path(entry->file));
    } catch (const Failure &failure) {
        return failure.text;
    }
    return "";
}

}  // namespace agent
