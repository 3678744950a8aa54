/* Wine's ntdll.so as the product loader's tests need it: __wine_main writes
 * the command line it was given (one argument a line, argv[0] left out) and
 * the socket variable it still sees ("socket=" and the value) to
 * $VT_FAKE_NTDLL_RECORD, then ends the process as Wine does. */
#include <stdio.h>
#include <stdlib.h>

__attribute__((visibility("default"))) void __wine_main(int argc, char *argv[], char *envp[])
{
    const char *path = getenv("VT_FAKE_NTDLL_RECORD");
    const char *socket = getenv("VT_ALT_LOADER_SOCKET");
    FILE *out = path ? fopen(path, "w") : NULL;
    (void)envp;
    if (out) {
        for (int i = 1; i < argc; i++)
            fprintf(out, "%s\n", argv[i]);
        fprintf(out, "socket=%s\n", socket ? socket : "");
        fclose(out);
    }
    exit(0);
}
