// A plain read-and-sum loop over the floats of a mapped file, for bench/maths_speed.py to measure against.
// Not part of the build:  c++ -O3 plain_sum.cpp;  a.out FILE OFFSET COUNT  sums once for each line on
// standard input and prints the processor seconds and the sum.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

static double now() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

static double sum_of(const float *from, size_t count) {
    double part[16] = {};
    size_t i = 0;
    for (; i + 16 <= count; i += 16)
        for (size_t k = 0; k < 16; ++k)
            part[k] += from[i + k];
    for (; i < count; ++i)
        part[0] += from[i];
    double sum = 0.0;
    for (double p : part)
        sum += p;
    return sum;
}

int main(int argc, char **argv) {
    struct stat about;
    const int fd = argc == 4 ? open(argv[1], O_RDONLY) : -1;
    if (fd < 0 || fstat(fd, &about) != 0)
        return 1;
    const size_t offset = strtoull(argv[2], nullptr, 10), count = strtoull(argv[3], nullptr, 10);
    if (offset % sizeof(float) != 0 || offset + count * sizeof(float) > static_cast<size_t>(about.st_size))
        return 1;
    const void *base = mmap(nullptr, static_cast<size_t>(about.st_size), PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED)
        return 1;
    const float *first = reinterpret_cast<const float *>(static_cast<const char *>(base) + offset);
    char line[16];
    while (std::fgets(line, sizeof line, stdin)) {
        const double start = now();
        const double sum = sum_of(first, count);
        std::printf("%.9f %.17g\n", now() - start, sum);
        std::fflush(stdout);
    }
}
