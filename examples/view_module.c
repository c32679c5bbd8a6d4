/* A viewer in a few lines: maps a module of a running server and says what lies in it.
 *
 *   view_module NAME
 *
 * It needs nothing but the installed header: cc -I<prefix>/include/kestrel view_module.c (with the include
 * below as "kestrel_module.h").
 */
#include "modules/store/kestrel_module.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static double element(const unsigned char *at, int data_type) {
    uint32_t count;
    float single;
    double value;
    switch (data_type) {
    case MOD_U_INT32:
        memcpy(&count, at, sizeof count);
        return count;
    case MOD_FLOAT:
        memcpy(&single, at, sizeof single);
        return single;
    case MOD_DOUBLE:
        memcpy(&value, at, sizeof value);
        return value;
    default:
        return 0;
    }
}

int main(int argc, char **argv) {
    char name[256];
    struct stat status;
    struct kestrel_module module;
    if (argc != 2 || snprintf(name, sizeof name, "/%s", argv[1]) >= (int)sizeof name)
        return fprintf(stderr, "usage: view_module NAME\n"), 2;
    const int fd = shm_open(name, O_RDONLY, 0);
    if (fd < 0 || fstat(fd, &status) != 0)
        return perror(name), 1;
    const unsigned char *mapped = mmap(NULL, (size_t)status.st_size, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED)
        return perror(name), 1;
    if (kestrel_module_look(mapped, (size_t)status.st_size, &module) != KESTREL_MODULE_OK)
        return fprintf(stderr, "%s: not a headed module\n", name), 1;
    const size_t count = module.num_x * module.num_y * module.num_t;
    double sum = 0, most = 0;
    size_t where = 0;
    for (size_t i = 0; i < count; ++i) {
        const double value = element(mapped + module.data_offset + i * module.element_size, module.data_type);
        sum += value;
        if (i == 0 || value > most) {
            most = value;
            where = i;
        }
    }
    printf("%s: %zu x %zu x %zu, sum %.0f, most %.0f at x %zu\n", argv[1], module.num_x, module.num_y,
           module.num_t, sum, most, module.num_x > 0 ? where % module.num_x : 0);
    return 0;
}
