// The benchmark's Wine library: wine_init notes when it was called and
// returns at once (a failure, to the launcher), so that every round of the
// benchmark ends with the thread that called it.
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>

extern "C" {

__attribute__((visibility("default"))) std::atomic<long long> bench_wine_init_called { 0 };

__attribute__((visibility("default"))) void wine_init(int, char**, char* error, int errorSize)
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    bench_wine_init_called = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    std::snprintf(error, static_cast<size_t>(errorSize), "benchmark round over");
}

__attribute__((visibility("default"))) void* wine_anon_mmap(void* start, size_t, int, int) { return start; }
__attribute__((visibility("default"))) void wine_mmap_add_reserved_area(void*, size_t) {}
}
