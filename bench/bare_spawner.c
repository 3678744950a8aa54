/* The least a launcher can do: start the program its arguments name (the
 * program's path first, then its arguments) with this process's environment,
 * streams and directory, and end. The launch benchmark measures it the way
 * it measures the launcher, as the floor the launcher's start-up sits on. */
#include <spawn.h>
#include <sys/types.h>

extern char** environ;

int main(int argc, char** argv)
{
    pid_t child;
    if (argc < 2)
        return 2;
    return posix_spawn(&child, argv[1], NULL, NULL, argv + 1, environ) == 0 ? 0 : 1;
}
