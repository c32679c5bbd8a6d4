#include "modules/store/store.h"

#include "modules/store/free_memory.h"

#include "modules/store/cut_guard.h"
#include "support/fd.h"
#include "support/mapping.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

namespace kestrel {

std::mutex img_mod_mutex;

namespace {

datamod_record *mapped = nullptr; // newest first; img_mod_mutex
std::atomic<int> mapped_count{0};
std::atomic<long long> mapped_bytes{0};
constexpr int object_mode = 0777; // any user's display may map and mark a module

// "/name", or errno (EINVAL for an empty name or one with a further "/", ENAMETOOLONG) and nothing.
std::string object_name(const char *name) {
    std::string object = *name == '/' ? name : "/" + std::string(name);
    if (object.size() < 2 || object.find('/', 1) != std::string::npos || object == "/." || object == "/..") {
        errno = EINVAL;
        return {};
    }
    if (object.size() - 1 > NAME_MAX) {
        errno = ENAMETOOLONG;
        return {};
    }
    return object;
}

datamod_record *find(const void *head) {
    datamod_record *record = mapped;
    while (record != nullptr && (record->address != head || record->links == 0))
        record = record->next;
    return record;
}

datamod_record *find(dev_t device, ino_t inode) {
    datamod_record *record = mapped;
    while (record != nullptr && (record->device != device || record->inode != inode))
        record = record->next;
    return record;
}

void remove_record(datamod_record *record) {
    datamod_record **place = &mapped;
    while (*place != record)
        place = &(*place)->next;
    *place = record->next;
    cut_guard_remove(record->guard);
    ::munmap(record->address, static_cast<std::size_t>(record->size));
    ::close(record->fd);
    mapped_count.fetch_sub(1, std::memory_order_relaxed);
    mapped_bytes.fetch_sub(record->size, std::memory_order_relaxed);
    delete record;
}

// To map a large module and to unmap it takes as long as to write it: the one that was used last stays mapped for a
// while. img_mod_mutex guards all of this.
constexpr off_t worth_keeping = off_t{16} << 20;
constexpr std::chrono::seconds unused_time{5};
bool keeps_unused = false;
datamod_record *unused = nullptr; // in the list, without links
std::chrono::steady_clock::time_point unused_since;
std::atomic<bool> has_unused{false}; // the same for datamod_turn, which has nothing to do most often

void set_unused(datamod_record *record) {
    unused = record;
    unused_since = std::chrono::steady_clock::now();
    has_unused.store(record != nullptr, std::memory_order_relaxed);
}

void drop_unused() {
    if (unused == nullptr)
        return;
    remove_record(unused);
    set_unused(nullptr);
}

// Whether the object still has a name and the mapped size, and had it whenever somebody looked.
bool is_as_mapped(const datamod_record &record) {
    struct stat status {};
    return ::fstat(record.fd, &status) == 0 && status.st_nlink > 0 && status.st_size == record.size &&
           !cut_guard_was_cut(record.guard);
}

// What is no more what it was is of no use, and its memory may be what a new module needs.
void look_after_unused() {
    if (unused != nullptr && !is_as_mapped(*unused))
        drop_unused();
}

// Reports with the errno that the caller shall see, too.
int complain(const char *cannot, const char *name) {
    const int error = errno;
    std::fprintf(stderr, "Cannot %s share memory file '%s', errno= %d\n", cannot, name, error);
    errno = error;
    return -1;
}

int cannot_map(const char *name) {
    return complain("mmap", name);
}

int cannot_stat(const char *name) {
    return complain("stat", name);
}

// Maps the open object and puts its record first in the list; the mutex is held.
int add_record(const char *name, unique_fd fd, std::size_t size, const struct stat &status,
               datamod_record **record, void **head) {
    auto mapping = unique_mapping::map(fd.get(), size, PROT_READ | PROT_WRITE, MAP_SHARED);
    if (!mapping)
        return cannot_map(name);
    auto fresh = std::make_unique<datamod_record>();
    fresh->device = status.st_dev;
    fresh->inode = status.st_ino;
    fresh->size = static_cast<off_t>(size);
    fresh->links = 1;
    fresh->next = mapped;
    fresh->address = mapping.address();
    fresh->guard = cut_guard_add(mapping.address(), size);
    if (fresh->guard < 0) {
        errno = EMFILE;
        return cannot_map(name);
    }
    fresh->fd = fd.release();
    mapped_count.fetch_add(1, std::memory_order_relaxed);
    mapped_bytes.fetch_add(fresh->size, std::memory_order_relaxed);
    *head = mapping.release();
    *record = mapped = fresh.release();
    return 0;
}

// All the memory now, so that no later write can meet a full file system (which would be a fatal signal).
int reserve(int fd, std::size_t size) {
    int error = EINTR;
    while (error == EINTR)
        error = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    errno = error;
    return error == 0 ? 0 : -1;
}

// A new object that vanishes again, errno kept, unless it becomes a module.
class new_object {
  public:
    explicit new_object(const std::string &name) : name_(&name) {}
    ~new_object() {
        const int cause = errno;
        if (name_)
            ::shm_unlink(name_->c_str());
        errno = cause;
    }
    new_object(const new_object &) = delete;
    new_object &operator=(const new_object &) = delete;
    void keep() { name_ = nullptr; }

  private:
    const std::string *name_;
};

int size_and_map(const char *name, unique_fd fd, std::size_t size, datamod_record **record, void **head) {
    if (size == 0 || size > static_cast<std::size_t>(PTRDIFF_MAX)) {
        errno = size == 0 ? EINVAL : EFBIG;
        return cannot_map(name);
    }
    if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0 || reserve(fd.get(), size) != 0) {
        const int error = errno;
        std::fprintf(stderr, "_os_datmod:Cannot ftruncate(size=%zd) shared memory file '%s', errno= %d\n",
                     static_cast<ssize_t>(size), name, error);
        errno = error;
        return -1;
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0)
        cannot_stat(name);
    return add_record(name, std::move(fd), size, status, record, head);
}

} // namespace

int _os_datmod(const char *name, std::size_t size, void **head, datamod_record **record) try {
    const std::string object = object_name(name);
    if (object.empty())
        return complain("create", name);
    if (!datamod_memory_for(size)) {
        std::fprintf(stderr,
                     "_os_datmod:No memory for shared memory file '%s' of size %zd beside the reserve\n",
                     name, static_cast<ssize_t>(size));
        errno = ENOMEM;
        return -1;
    }
    const std::lock_guard lock(img_mod_mutex);
    look_after_unused();
    const mode_t mask = ::umask(0);
    unique_fd fd(::shm_open(object.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, object_mode));
    const int error = errno;
    ::umask(mask);
    errno = error;
    if (!fd)
        return complain("create", name);
    new_object made(object);
    if (size_and_map(name, std::move(fd), size, record, head) != 0)
        return -1;
    made.keep();
    return 0;
} catch (const std::bad_alloc &) {
    std::fprintf(stderr, "Out of memory\n");
    errno = ENOMEM;
    return -1;
}

int _os_link(const char *name, datamod_record **record, void **head) {
    const std::string object = object_name(name);
    if (object.empty())
        return -1;
    const std::lock_guard lock(img_mod_mutex);
    unique_fd fd(::shm_open(object.c_str(), O_RDWR | O_CLOEXEC, 0));
    if (!fd)
        return -1;
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0)
        return cannot_stat(name);
    look_after_unused();
    if (datamod_record *known = find(status.st_dev, status.st_ino)) {
        if (known == unused)
            set_unused(nullptr);
        ++known->links;
        *record = known;
        *head = known->address;
        return 0;
    }
    if (status.st_size <= 0) {
        errno = EINVAL;
        return cannot_map(name);
    }
    return add_record(name, std::move(fd), static_cast<std::size_t>(status.st_size), status, record, head);
}

int munlink(void *head) {
    const std::lock_guard lock(img_mod_mutex);
    datamod_record *const record = head == nullptr ? nullptr : find(head);
    if (record == nullptr) {
        std::fprintf(stderr, " Cannot find module head pointer 0x%0zx in list so not touching anything\n",
                     reinterpret_cast<std::size_t>(head));
        return -1;
    }
    if (--record->links > 0)
        return 0;
    if (!keeps_unused || record->size < worth_keeping || !is_as_mapped(*record)) {
        remove_record(record);
        return 0;
    }
    drop_unused();
    set_unused(record);
    return 0;
}

void datamod_keep_unused(bool keep) {
    const std::lock_guard lock(img_mod_mutex);
    keeps_unused = keep;
    if (!keep)
        drop_unused();
}

void datamod_turn() {
    if (!has_unused.load(std::memory_order_relaxed))
        return;
    const std::lock_guard lock(img_mod_mutex);
    look_after_unused();
    if (std::chrono::steady_clock::now() - unused_since > unused_time)
        drop_unused();
}

int _os_unlink(void *head) {
    return munlink(head);
}

off_t datamod_mod_size(const void *head) {
    const std::lock_guard lock(img_mod_mutex);
    const datamod_record *record = head == nullptr ? nullptr : find(head);
    return record == nullptr ? -1 : record->size;
}

int datamod_descriptor(const void *head) {
    const std::lock_guard lock(img_mod_mutex);
    const datamod_record *record = head == nullptr ? nullptr : find(head);
    return record == nullptr ? -1 : record->fd;
}

int datamod_links(const void *head) {
    const std::lock_guard lock(img_mod_mutex);
    const datamod_record *record = head == nullptr ? nullptr : find(head);
    return record == nullptr ? 0 : record->links;
}

bool datamod_is_whole(const void *head) {
    const std::lock_guard lock(img_mod_mutex);
    const datamod_record *record = head == nullptr ? nullptr : find(head);
    struct stat status {};
    errno = EINVAL;
    if (record == nullptr || ::fstat(record->fd, &status) != 0)
        return false;
    errno = ENXIO;
    return status.st_size >= record->size && !cut_guard_was_cut(record->guard);
}

int datamod_remove(const char *name, const void *head) {
    const std::string object = object_name(name);
    if (object.empty())
        return -1;
    const std::lock_guard lock(img_mod_mutex);
    const datamod_record *record = head == nullptr ? nullptr : find(head);
    errno = EBUSY;
    if (record == nullptr || record->links != 1)
        return -1;
    struct stat status {};
    // Where Linux keeps the objects: a look by name needs no descriptor, and there may be none left.
    if (::stat(("/dev/shm" + object).c_str(), &status) != 0)
        return -1;
    errno = ESTALE;
    if (status.st_dev != record->device || status.st_ino != record->inode)
        return -1;
    return ::shm_unlink(object.c_str());
}

int datamod_free_name(const char *name) {
    const std::string object = object_name(name);
    return object.empty() ? -1 : ::shm_unlink(object.c_str());
}

datamod_counts datamod_count() {
    const std::lock_guard lock(img_mod_mutex);
    datamod_counts counts;
    for (const datamod_record *record = mapped; record != nullptr; record = record->next) {
        ++counts.mappings;
        counts.links += record->links;
    }
    return counts;
}

datamod_totals datamod_total() {
    return {mapped_count.load(std::memory_order_relaxed), mapped_bytes.load(std::memory_order_relaxed)};
}

module_link::module_link(const char *name) {
    datamod_record *record = nullptr;
    if (_os_link(name, &record, &head_) != 0)
        head_ = nullptr;
}

module_link module_link::make(const char *name, std::size_t size) {
    module_link link;
    datamod_record *record = nullptr;
    link.made_ = _os_datmod(name, size, &link.head_, &record) == 0;
    return link;
}

module_link::module_link(module_link &&other) noexcept
    : head_(std::exchange(other.head_, nullptr)), made_(std::exchange(other.made_, false)) {}

module_link &module_link::operator=(module_link &&other) noexcept {
    if (this != &other) {
        reset();
        head_ = std::exchange(other.head_, nullptr);
        made_ = std::exchange(other.made_, false);
    }
    return *this;
}

void module_link::reset() {
    if (head_ != nullptr)
        munlink(head_);
    head_ = nullptr;
    made_ = false;
}

} // namespace kestrel
