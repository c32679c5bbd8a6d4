// modules/store: named shared-memory objects and the list of those that this process has mapped.
//
// Uses server/ for messages only (none here: store-level failures go to standard error). Every operation
// takes img_mod_mutex and may be called from any thread; what lies in the mappings is locked by nobody.
// Removed are a new object that its maker could not fill (datamod_remove), and one that another takes the place of
// (datamod_free_name).
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <sys/types.h>

namespace kestrel {

// A mapping that this process holds. Records stay where they are while links is above zero.
struct datamod_record {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;          // mapped bytes: the module's capacity
    void *address = nullptr; // the header
    int links = 0;
    int fd = -1;    // the object, kept to notice that it was cut short
    int guard = -1; // the mapping's number with cut_guard
    datamod_record *next = nullptr;
};

extern std::mutex img_mod_mutex;

// Creates the object exclusively, reserves its memory in full and maps it with one link. The contents are
// zero. 0, or -1 after a message on standard error, with errno set; nothing is left behind.
int _os_datmod(const char *name, std::size_t size, void **head, datamod_record **record);

// Links an existing object: one more link where it is mapped already. 0, or -1 with errno set; without a
// message when there is no such object.
int _os_link(const char *name, datamod_record **record, void **head);

// Takes a link away, and the mapping with the last one. 0, or -1 after a message on standard error.
int munlink(void *head);
int _os_unlink(void *head);

// Whether the large module whose last link ended last stays mapped for its next use: for some seconds, and not without a
// name. Who wants that calls datamod_turn between other things; it costs next to nothing.
void datamod_keep_unused(bool keep);
void datamod_turn();

// Capacity in bytes of a mapped module, or -1.
off_t datamod_mod_size(const void *head);

// The descriptor of a mapped module's object, which the list keeps; -1 for what is not mapped.
int datamod_descriptor(const void *head);

// How often a module is linked; 0 for what is not mapped.
int datamod_links(const void *head);

// The object's present size is still the mapped one or more, and it has not been less while somebody looked
// (errno ENXIO when it was cut short, EINVAL when `head` is not mapped).
bool datamod_is_whole(const void *head);

// Removes the object called `name` where it is the one that is mapped at `head` and is linked once, so that
// nobody else in the server uses it; the mapping and its link stay. 0, or -1 with errno set (EBUSY, or ESTALE
// when the name belongs to another object by now).
int datamod_remove(const char *name, const void *head);

// Takes the name away from whatever object has it, so that another can be made; who has the old one mapped keeps it.
// 0, or -1 with errno set.
int datamod_free_name(const char *name);

// How many mappings and links are held; for the tests that look for leaks.
struct datamod_counts {
    int mappings = 0;
    int links = 0;
};
datamod_counts datamod_count();

// The mappings and their bytes, without a lock: a large module may be in the making.
struct datamod_totals {
    int mappings = 0;
    long long bytes = 0;
};
datamod_totals datamod_total();

// A link that ends with its scope.
class module_link {
  public:
    module_link() = default;
    explicit module_link(const char *name); // empty, with errno set, when there is no such module
    // The link of a new object (see _os_datmod), which stays when the link ends; empty when there is none.
    static module_link make(const char *name, std::size_t size);
    module_link(module_link &&other) noexcept;
    module_link &operator=(module_link &&other) noexcept;
    module_link(const module_link &) = delete;
    module_link &operator=(const module_link &) = delete;
    ~module_link() { reset(); }

    void *head() const { return head_; }
    explicit operator bool() const { return head_ != nullptr; }
    bool is_new() const { return made_; } // the object was created with this link
    void reset();

  private:
    void *head_ = nullptr;
    bool made_ = false;
};

} // namespace kestrel
