/* The installed header as a C program sees it. */
#include "modules/store/kestrel_module.h"

int module_header_from_c(const void *mapped, size_t size, size_t *first);

/* Offset of element (1, 0, 0), or -1. */
int module_header_from_c(const void *mapped, size_t size, size_t *first) {
    struct kestrel_module module;
    if (kestrel_module_look(mapped, size, &module) != KESTREL_MODULE_OK)
        return -1;
    *first = module.data_offset + module.element_size;
    return 0;
}
