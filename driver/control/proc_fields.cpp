// driver/control/proc_fields.cpp: the files of a node's folder in the status tree
// SPDX-License-Identifier: GPL-2.0-only
//
// A table per node type: name, how its text is made, and where in the record its value lies. Values
// are read as they are at that moment, each on its own, without the locks that protect them; a filter's
// list of snaps alone is walked under its lock.
#include "driver/control/proc_fields.h"

#include "driver/utils/atomic.h"
#include "driver/utils/string.h"
#include "os/log.h"

namespace {

constexpr std::size_t page_size = OS_PAGE_SIZE;

struct field {
    const char *name;
    void (*print)(const char *value, char *page);
    std::size_t offset;  // of the value in the record
};

template <typename T> T value_at(const char *value) {
    return trak_read_once(*reinterpret_cast<const T *>(value));
}

void print_number(const char *value, char *page) {
    os_snprintf(page, page_size, "%d\n", value_at<std::int32_t>(value));
}

void print_widened(const char *value, char *page) {
    os_snprintf(page, page_size, "%lld\n", static_cast<long long>(value_at<std::int32_t>(value)));
}

void print_long(const char *value, char *page) {
    os_snprintf(page, page_size, "%lld\n", static_cast<long long>(value_at<std::int64_t>(value)));
}

void print_text(const char *value, char *page) {
    os_snprintf(page, page_size, "%s\n", value);
}

// Those below take the whole record (offset 0).
const trak_device *record(const char *value) {
    return reinterpret_cast<const trak_device *>(value);
}

void print_type(const char *value, char *page) {
    print_text(trak_is_filter(record(value)) ? "filter" : "snap", page);
}

// The filter whose disk a node shows: its own record, or a snap's parent. Null: none yet.
const trak_device *filter_of(const char *value) {
    const trak_device *dev = record(value);
    return trak_is_filter(dev) ? dev : dev->snap.filter;
}

void print_hdd_major(const char *value, char *page) {
    if (const trak_device *filter = filter_of(value))
        os_snprintf(page, page_size, "%d\n", static_cast<int>(os_major(filter->filter.hdd_dev)));
}

void print_hdd_minor(const char *value, char *page) {
    if (const trak_device *filter = filter_of(value))
        os_snprintf(page, page_size, "%d\n", static_cast<int>(os_minor(filter->filter.hdd_dev)));
}

void print_hdd_name(const char *value, char *page) {
    if (const trak_device *filter = filter_of(value))
        print_text(filter->filter.hdd_name, page);
}

void print_filter_minor(const char *value, char *page) {
    if (const trak_device *filter = filter_of(value))
        os_snprintf(page, page_size, "%d\n", filter->minor);
}

// One line per snap. A filter has at most as many snaps as there are minors; a list that would not
// fit into the page ends at the last line that does.
void print_snaps(const char *value, char *page) {
    constexpr std::size_t longest_line = sizeof "-2147483648\n";
    auto *filter = const_cast<trak_filter *>(&record(value)->filter);
    const trak_list *head = &filter->snaps;
    std::size_t length = 0;
    // A start may move its snap to the end of the list.
    const zuread_guard snaps(&filter->snap_rwlock);
    for (trak_list *link = head->next; link != head && length + longest_line <= page_size;
         link = link->next) {
        const int n = os_snprintf(page + length, page_size - length, "%d\n",
                                  trak_device_of_link(link)->minor);
        length += static_cast<std::size_t>(n);
    }
}

constexpr std::size_t whole = 0;
#define IN_RECORD(member) offsetof(trak_device, member)

constexpr field filter_fields[] = {
    {"dev_type", print_type, whole},
    {"minor", print_number, IN_RECORD(minor)},
    {"uuid", print_text, IN_RECORD(uuid)},
    {"name", print_text, IN_RECORD(name)},
    {"dev_name", print_text, IN_RECORD(dev_name)},
    {"started", print_number, IN_RECORD(started)},
    {"use_cnt", print_number, IN_RECORD(use_cnt.value)},
    {"hdd_major", print_hdd_major, whole},
    {"hdd_minor", print_hdd_minor, whole},
    {"hdd_name", print_hdd_name, whole},
    {"snap_minor", print_snaps, whole},
    {"extent_size", print_number, IN_RECORD(filter.extent_size)},
    {"extent_cnt", print_number, IN_RECORD(filter.extent_cnt)},
    {"dev_size", print_long, IN_RECORD(filter.dev_size)},
    {"bmp_dir", print_text, IN_RECORD(filter.bmp_dir)},
    {"incr_bmp_size", print_number, IN_RECORD(filter.incr_bmp_size)},
    {"incr_bmp_dirty", print_number, IN_RECORD(filter.incr_bmp_dirty)},
    {"diff_bmp_size", print_number, IN_RECORD(filter.diff_bmp_size)},
    {"diff_bmp_dirty", print_number, IN_RECORD(filter.diff_bmp_dirty)},
    {"cowqueue_len", print_number, IN_RECORD(filter.cowqueue.cnt.value)},
    {"snaps", print_snaps, whole},
    {nullptr, nullptr, 0},
};

constexpr field snap_fields[] = {
    {"dev_type", print_type, whole},
    {"minor", print_number, IN_RECORD(minor)},
    {"uuid", print_text, IN_RECORD(uuid)},
    {"name", print_text, IN_RECORD(name)},
    {"dev_name", print_text, IN_RECORD(dev_name)},
    {"started", print_number, IN_RECORD(started)},
    {"stop_pending", print_number, IN_RECORD(snap.stop_pending)},
    {"del_pending", print_number, IN_RECORD(snap.del_pending)},
    {"use_cnt", print_number, IN_RECORD(use_cnt.value)},
    {"filter_minor", print_filter_minor, whole},
    {"hdd_major", print_hdd_major, whole},
    {"hdd_minor", print_hdd_minor, whole},
    {"hdd_name", print_hdd_name, whole},
    {"chunk_size", print_number, IN_RECORD(snap.chunk_size)},
    {"cow_bmp_fname", print_text, IN_RECORD(snap.cow_bmp_fname)},
    {"cow_data_fname", print_text, IN_RECORD(snap.cow_data_fname)},
    {"cow_bmp_size", print_widened, IN_RECORD(snap.cow_bmp_size)},
    {"cow_data_size", print_long, IN_RECORD(snap.cow_data_size)},
    {"snap_valid", print_number, IN_RECORD(snap.snap_valid)},
    {nullptr, nullptr, 0},
};

#undef IN_RECORD

const field *fields_of(std::uint32_t dev_type) {
    return dev_type == TRAK_DEV_FILTER ? filter_fields : snap_fields;
}

}  // namespace

const char *trak_proc_field_name(std::uint32_t dev_type, std::size_t index) {
    return fields_of(dev_type)[index].name;
}

void trak_proc_print_field(trak_device *dev, const char *name, char *page) {
    for (const field *f = fields_of(dev->dev_type); f->name != nullptr; ++f) {
        if (trak_strcmp(f->name, name) == 0) {
            f->print(reinterpret_cast<const char *>(dev) + f->offset, page);
            return;
        }
    }
}
