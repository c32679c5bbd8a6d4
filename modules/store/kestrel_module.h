/* kestrel: the layout of a data module in shared memory, for programs that map one (C99 or C++).
 *
 * A module called N is the POSIX shared-memory object "/N". It starts with one of the two headers below. The
 * high half of disp_type says which: 0 for mod_header, 1 for mod_header3d. The data follow the header
 * (mod_header: at byte 360; mod_header3d: at byte data_offset), x fastest, then y, then t, in the byte order
 * of the machine. The header belongs to everybody who maps it: take a copy and check it against the size of
 * the object (fstat) before use, as kestrel_module_look() does.
 */
#ifndef KESTREL_MODULE_H
#define KESTREL_MODULE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
namespace kestrel {
#endif

/* Element types (data_type). 32, 33 (16 bits) and 40 to 47 (32 bits) belong to the image display. */
enum { MOD_U_INT32 = 1, MOD_INT16 = 2, MOD_FLOAT = 3, MOD_DOUBLE = 4 };

enum { MOD_LABEL_SIZE = 82, MOD_LABEL_MAX = 80 };
enum { MOD_DISP_2D = 3, MOD_DISP_3D = 0x10003 };

struct mod_header {
    int32_t data_type;
    int32_t disp_type;
    uint32_t num_x;
    uint32_t num_y;
    int32_t version;
    int32_t alignment;
    double aspect; /* -1.0: none was set */
    char x_label[MOD_LABEL_SIZE];
    char y_label[MOD_LABEL_SIZE];
    char z_label[MOD_LABEL_SIZE];
    char title[MOD_LABEL_SIZE];
};

struct mod_header3d {
    int32_t data_type;
    int32_t disp_type;
    uint32_t num_x;
    uint32_t num_y;
    uint32_t num_t;
    int32_t version;
    double aspect;
    char x_label[MOD_LABEL_SIZE];
    char y_label[MOD_LABEL_SIZE];
    char t_label[MOD_LABEL_SIZE];
    char z_label[MOD_LABEL_SIZE];
    char title[MOD_LABEL_SIZE];
    char alignment[2];
    int32_t labels_num;  /* labels of single frames */
    int32_t labels_size; /* bytes between this header and the data */
    int32_t labels_spare;
    int32_t data_offset; /* from the start of the header */
    int32_t alignment2;
    /* int32_t labels_offset[labels_num], then the label strings, then the data */
};

#ifdef __cplusplus
#define KESTREL_MODULE_ASSERT(condition) static_assert(condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define KESTREL_MODULE_ASSERT(condition) _Static_assert(condition, #condition)
#else
#define KESTREL_MODULE_ASSERT(condition) extern int kestrel_module_assert[(condition) ? 1 : -1]
#endif
#define KESTREL_MODULE_AT(type, field, offset) KESTREL_MODULE_ASSERT(offsetof(struct type, field) == (offset))

KESTREL_MODULE_AT(mod_header, data_type, 0);
KESTREL_MODULE_AT(mod_header, disp_type, 4);
KESTREL_MODULE_AT(mod_header, num_x, 8);
KESTREL_MODULE_AT(mod_header, num_y, 12);
KESTREL_MODULE_AT(mod_header, version, 16);
KESTREL_MODULE_AT(mod_header, aspect, 24);
KESTREL_MODULE_AT(mod_header, x_label, 32);
KESTREL_MODULE_AT(mod_header, y_label, 114);
KESTREL_MODULE_AT(mod_header, z_label, 196);
KESTREL_MODULE_AT(mod_header, title, 278);
KESTREL_MODULE_ASSERT(sizeof(struct mod_header) == 360);
KESTREL_MODULE_AT(mod_header3d, data_type, 0);
KESTREL_MODULE_AT(mod_header3d, disp_type, 4);
KESTREL_MODULE_AT(mod_header3d, num_x, 8);
KESTREL_MODULE_AT(mod_header3d, num_y, 12);
KESTREL_MODULE_AT(mod_header3d, num_t, 16);
KESTREL_MODULE_AT(mod_header3d, version, 20);
KESTREL_MODULE_AT(mod_header3d, aspect, 24);
KESTREL_MODULE_AT(mod_header3d, x_label, 32);
KESTREL_MODULE_AT(mod_header3d, y_label, 114);
KESTREL_MODULE_AT(mod_header3d, t_label, 196);
KESTREL_MODULE_AT(mod_header3d, z_label, 278);
KESTREL_MODULE_AT(mod_header3d, title, 360);
KESTREL_MODULE_AT(mod_header3d, labels_num, 444);
KESTREL_MODULE_AT(mod_header3d, labels_size, 448);
KESTREL_MODULE_AT(mod_header3d, labels_spare, 452);
KESTREL_MODULE_AT(mod_header3d, data_offset, 456);
KESTREL_MODULE_ASSERT(sizeof(struct mod_header3d) == 464);

#undef KESTREL_MODULE_AT
#undef KESTREL_MODULE_ASSERT

/* Bytes of an element, 0 for a data_type that does not exist. */
static inline size_t kestrel_module_element_size(int32_t data_type) {
    if (data_type == MOD_DOUBLE)
        return 8;
    if (data_type == MOD_U_INT32 || data_type == MOD_FLOAT || (data_type >= 40 && data_type <= 47))
        return 4;
    if (data_type == MOD_INT16 || data_type == 32 || data_type == 33)
        return 2;
    return 0;
}

/* What a header says, checked. */
struct kestrel_module {
    int32_t data_type;
    int32_t is_3d;
    size_t element_size;
    size_t num_x;
    size_t num_y;
    size_t num_t;       /* 1 for a 2-D module */
    size_t data_offset; /* of element (0, 0, 0), from the start of the mapping */
};

/* Why a header cannot be used. */
enum kestrel_module_fault {
    KESTREL_MODULE_OK = 0,
    KESTREL_MODULE_TOO_SHORT,  /* no room for a header */
    KESTREL_MODULE_BAD_TYPE,   /* unknown data_type */
    KESTREL_MODULE_BAD_KIND,   /* neither 2-D nor 3-D */
    KESTREL_MODULE_BAD_OFFSET, /* data_offset outside the object or not aligned */
    KESTREL_MODULE_TOO_LARGE   /* the dimensions reach past the end of the object */
};

/* Reads the header of a mapped module of `size` bytes once and checks it against that size; fills *module. */
static inline enum kestrel_module_fault kestrel_module_look(const void *mapped, size_t size,
                                                            struct kestrel_module *module) {
    struct mod_header head;
    struct mod_header3d head3d;
    size_t room;
    if (size < sizeof head)
        return KESTREL_MODULE_TOO_SHORT;
    memcpy(&head, mapped, sizeof head);
    module->data_type = head.data_type;
    module->element_size = kestrel_module_element_size(head.data_type);
    if (module->element_size == 0)
        return KESTREL_MODULE_BAD_TYPE;
    if ((uint32_t)head.disp_type >> 16 > 1)
        return KESTREL_MODULE_BAD_KIND;
    module->is_3d = (uint32_t)head.disp_type >> 16 == 1;
    module->num_x = head.num_x;
    module->num_y = head.num_y;
    module->num_t = 1;
    module->data_offset = sizeof head;
    if (module->is_3d) {
        if (size < sizeof head3d)
            return KESTREL_MODULE_TOO_SHORT;
        memcpy(&head3d, mapped, sizeof head3d);
        module->num_t = head3d.num_t;
        if (head3d.data_offset < (int32_t)sizeof head3d || (size_t)head3d.data_offset > size ||
            (size_t)head3d.data_offset % module->element_size != 0)
            return KESTREL_MODULE_BAD_OFFSET;
        module->data_offset = (size_t)head3d.data_offset;
    }
    if (module->num_x > INT32_MAX || module->num_y > INT32_MAX || module->num_t > INT32_MAX)
        return KESTREL_MODULE_TOO_LARGE;
    if (module->num_x == 0 || module->num_y == 0 || module->num_t == 0)
        return KESTREL_MODULE_OK;
    room = (size - module->data_offset) / module->element_size;
    if (module->num_x > room || module->num_y > room / module->num_x ||
        module->num_t > room / module->num_x / module->num_y)
        return KESTREL_MODULE_TOO_LARGE;
    return KESTREL_MODULE_OK;
}

#ifdef __cplusplus
} /* namespace kestrel */
#endif

#endif
