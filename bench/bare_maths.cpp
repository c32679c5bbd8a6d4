// bench: the loops of the maths commands as anybody would write them over mapped memory, on one or two threads, for
// bench/maths_speed.py to measure against. Compiled there with -O3 -march=native; not part of the build.
//   bare_maths A B OFFSET NX NY NT    files of floats (and of the same many 32-bit integers) to map, data from OFFSET
// A line "NAME THREADS" on standard input does it once and is answered by the seconds that it took.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

std::size_t nx, ny, nt;
const float *a, *b;
std::vector<float> result;
std::vector<double> sums;
double total;

const float *mapped(const char *path, std::size_t offset) {
    struct stat about;
    const int fd = open(path, O_RDONLY);
    if (fd < 0 || fstat(fd, &about) != 0 ||
        static_cast<std::size_t>(about.st_size) < offset + nx * ny * nt * sizeof(float))
        std::exit(1);
    const void *base = mmap(nullptr, static_cast<std::size_t>(about.st_size), PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED)
        std::exit(1);
    return reinterpret_cast<const float *>(static_cast<const char *>(base) + offset);
}

template <class T, class S> S sum_of(const T *from, std::size_t count) {
    S part[16] = {};
    for (std::size_t i = 0; i + 16 <= count; i += 16)
        for (std::size_t k = 0; k < 16; ++k)
            part[k] += from[i + k];
    S sum = 0;
    for (S p : part)
        sum += p;
    return sum;
}

// Each takes rows first to last - 1 of all nt * ny (or, of planes, of all ny).
void accumulate(std::size_t first, std::size_t last) {
    total = total + sum_of<float, double>(a + first * nx, (last - first) * nx);
}

void accumulate_long(std::size_t first, std::size_t last) {
    for (std::size_t row = first; row < last; ++row)
        sums[row] =
            sum_of<std::uint32_t, std::uint32_t>(reinterpret_cast<const std::uint32_t *>(a) + row * nx, nx);
}

void row_sums(std::size_t first, std::size_t last) {
    for (std::size_t row = first; row < last; ++row)
        sums[row] = sum_of<float, double>(a + row * nx, nx);
}

void plane_sum(std::size_t first, std::size_t last) {
    std::vector<double> line(nx);
    for (std::size_t row = first; row < last; ++row) {
        std::fill(line.begin(), line.end(), 0.0);
        for (std::size_t t = 0; t < nt; ++t)
            for (std::size_t i = 0; i < nx; ++i)
                line[i] += a[(t * ny + row) * nx + i];
        for (std::size_t i = 0; i < nx; ++i)
            result[row * nx + i] = static_cast<float>(line[i]);
    }
}

void centroid_x(std::size_t first, std::size_t last) {
    for (std::size_t row = first; row < last; ++row) {
        double f[16] = {}, fc[16] = {}, all = 0, weighted = 0;
        for (std::size_t i = 0; i < nx; i += 16)
            for (std::size_t k = 0; k < 16; ++k) {
                const double value = a[row * nx + i + k];
                f[k] += value;
                fc[k] += value * (static_cast<double>(i + k) + 0.5);
            }
        for (std::size_t k = 0; k < 16; ++k) {
            all += f[k];
            weighted += fc[k];
        }
        result[row] = static_cast<float>(weighted / all);
    }
}

void bin_2x2(std::size_t first, std::size_t last) {
    for (std::size_t row = first; row + 1 < last; row += 2) {
        const float *one = a + row * nx, *other = one + nx;
        float *to = &result[row / 2 * (nx / 2)];
        for (std::size_t j = 0; j < nx / 2; ++j)
            to[j] = (one[2 * j] + one[2 * j + 1]) + (other[2 * j] + other[2 * j + 1]);
    }
}

void add(std::size_t first, std::size_t last) {
    for (std::size_t i = first * nx; i < last * nx; ++i)
        result[i] = a[i] + b[i];
}

constexpr struct {
    const char *name;
    void (*loop)(std::size_t, std::size_t);
    bool of_plane;
} loops[] = {{"accumulate", accumulate, false},
             {"accumulate-long", accumulate_long, false},
             {"integrate-t", row_sums, false},
             {"integrate-xy", plane_sum, true},
             {"centroid-x", centroid_x, false},
             {"re-bin", bin_2x2, false},
             {"add", add, false}};

} // namespace

int main(int argc, char **argv) {
    if (argc != 7)
        return 1;
    nx = std::strtoull(argv[4], nullptr, 10);
    ny = std::strtoull(argv[5], nullptr, 10);
    nt = std::strtoull(argv[6], nullptr, 10);
    a = mapped(argv[1], std::strtoull(argv[3], nullptr, 10));
    b = mapped(argv[2], std::strtoull(argv[3], nullptr, 10));
    result.assign(nx * ny * nt, 1.0F);
    sums.assign(ny * nt, 1.0);
    char name[32];
    unsigned threads = 1;
    while (std::scanf("%31s %u", name, &threads) == 2)
        for (const auto &loop : loops)
            if (std::strcmp(loop.name, name) == 0) {
                const auto start = std::chrono::steady_clock::now();
                const std::size_t rows = loop.of_plane ? ny : ny * nt, share = rows / threads;
                {
                    std::vector<std::jthread> others;
                    for (unsigned k = 1; k < threads; ++k)
                        others.emplace_back(loop.loop, k * share, (k + 1) * share);
                    loop.loop(0, share);
                }
                std::printf("%.9f\n",
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
                std::fflush(stdout);
            }
}
