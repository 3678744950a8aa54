/*
 * libwine.so.1: the product's Wine library, what the launcher loads from
 * <root>/lib64 to run Debian's Wine inside its own process once the
 * product's loader (wineloader.c) has handed a program's start over to it.
 * Debian's own libwine.so.1 has none of this; Debian's Wine needs only
 * ntdll.so and its entry point __wine_main.
 *
 *   wine_anon_mmap(start, size, prot, flags)
 *                     an anonymous private mapping with the caller's flags
 *                     (MAP_FIXED to take over an area the launcher kept).
 *   wine_mmap_add_reserved_area(addr, size)
 *                     adds an area to wine_main_preload_info, the table of
 *                     kept areas that ntdll looks up in the whole process
 *                     (dlsym(RTLD_DEFAULT, ...)): with it, ntdll reserves
 *                     nothing more and takes these for Windows memory.
 *   wine_init(argc, argv, error, error_size)
 *                     loads the ntdll.so beside the executable (the
 *                     launcher's copy in the product's Wine folder,
 *                     <root>/lib/wine, holds a link to Debian's) and
 *                     calls __wine_main, which does not return while Wine
 *                     runs; when Wine ends the program it ends the process
 *                     with exit(). Back only when Wine could not start, with
 *                     the reason in `error` (always NUL-terminated).
 *
 * wine_init runs on a thread of the launcher's while the launcher's main
 * thread goes on. The environment the program needs has been laid over
 * the launcher's before that thread started, WINELOADERNOEXEC=1 among it
 * (without it ntdll would re-execute the loader in place of the launcher).
 * ntdll changes the environment while it starts (putenv), which may move
 * `environ`; so it gets an array of its own, never `environ` itself.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#define WINE_EXPORT __attribute__((visibility("default")))

struct wine_preload_info {
    void *addr;
    size_t size;
};

/* The launcher keeps two areas (the DOS area and the shared heap); room for
 * a few more, and the zero-size entry that ends the table. */
enum { kMaxReservedAreas = 16 };
static struct wine_preload_info reserved_areas[kMaxReservedAreas + 1];
static int reserved_count;

WINE_EXPORT const struct wine_preload_info *wine_main_preload_info = NULL;

WINE_EXPORT void *wine_anon_mmap(void *start, size_t size, int prot, int flags)
{
    return mmap(start, size, prot, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
}

WINE_EXPORT void wine_mmap_add_reserved_area(void *addr, size_t size)
{
    if (!size || reserved_count == kMaxReservedAreas)
        return;
    reserved_areas[reserved_count].addr = addr;
    reserved_areas[reserved_count].size = size;
    reserved_count++;
    wine_main_preload_info = reserved_areas;
}

static void say(char *error, int error_size, const char *format, ...)
{
    va_list arguments;
    if (!error || error_size <= 0)
        return;
    va_start(arguments, format);
    vsnprintf(error, (size_t)error_size, format, arguments);
    va_end(arguments);
}

/* ntdll.so beside the executable this process runs: ntdll takes every
 * folder it needs from there, so Wine runs only in a launcher reached in
 * the product's Wine folder. */
static int ntdll_path(char *path, size_t size)
{
    char *self = realpath("/proc/self/exe", NULL);
    char *slash;
    int written;

    if (!self)
        return 0;
    slash = strrchr(self, '/');
    if (slash)
        *slash = 0;
    written = snprintf(path, size, "%s/ntdll.so", self);
    free(self);
    return written > 0 && (size_t)written < size;
}

WINE_EXPORT void wine_init(int argc, char *argv[], char *error, int error_size)
{
    extern char **environ;
    char path[4096];
    void *ntdll;
    void (*wine_main)(int, char **, char **);
    char **environment;
    size_t count = 0, i;

    if (error && error_size > 0)
        error[0] = 0;
    if (!ntdll_path(path, sizeof path)) {
        say(error, error_size, "cannot tell which executable this process runs");
        return;
    }
    if (access(path, F_OK) != 0) {
        say(error, error_size, "%s is missing: the launcher must be run from the product's Wine folder", path);
        return;
    }
    ntdll = dlopen(path, RTLD_NOW);
    if (!ntdll) {
        say(error, error_size, "could not load %s: %s", path, dlerror());
        return;
    }
    wine_main = (void (*)(int, char **, char **))dlsym(ntdll, "__wine_main");
    if (!wine_main) {
        say(error, error_size, "%s has no __wine_main", path);
        dlclose(ntdll);
        return;
    }
    /* Only a loader of another product leaves it out. */
    if (!getenv("WINELOADERNOEXEC"))
        setenv("WINELOADERNOEXEC", "1", 1);

    while (environ[count])
        count++;
    environment = calloc(count + 1, sizeof *environment);
    if (!environment) {
        say(error, error_size, "out of memory for Wine's environment");
        dlclose(ntdll);
        return;
    }
    for (i = 0; i < count; i++)
        environment[i] = environ[i];
    wine_main(argc, argv, environment);
    /* __wine_main ends the process itself when Wine cannot go on. */
    say(error, error_size, "__wine_main returned");
    free(environment);
}
