/*
 * check-tray.exe: a program with tray icons whose pictures are known to the
 * bit, for the checks of traybridge.exe. Not part of the product.
 *
 * One hidden window owns the icons. Commands, one per line on standard input;
 * each is answered with one line on standard output, "ok <window>" (the
 * window's handle in decimal) or "failed":
 *
 *   add <id> <picture>      Shell_NotifyIcon(NIM_ADD) with NIF_MESSAGE
 *   modify <id> <picture>   (callback WM_APP + id), NIF_ICON and NIF_TIP
 *                           ("Tray check <id>")
 *   callback <id> <number>  NIM_MODIFY of the callback message alone
 *   hide <id>, show <id>    NIM_MODIFY of NIS_HIDDEN alone
 *   delete <id>             NIM_DELETE
 *   clicks                  "ok <window>" followed by the tray callbacks it
 *                           has had since the last "clicks", one line each,
 *                           "click <message> <wParam> <lParam>", then "end"
 *   exit                    ends at once, deleting no icon (as does the end
 *                           of its input)
 *
 *   check-tray <file>
 *
 * reads no commands: it adds icon 1 (colour), then modifies it 50 times a
 * third of a second apart (colour2 and colour in turn), writing the time of
 * each call (unix time in microseconds, a line each) to the file, and then
 * keeps its icon until its window is closed (the launcher's end of session),
 * as a program started from a launcher with a document would.
 *
 * Pictures, 16 x 16 (rows top first; the test that reads the bytes the
 * launcher gets computes them from the same rules):
 *   colour, colour2   32 bits per pixel; pixel (x, y) blue x * 16 + v, green
 *                     y * 16, red 0x80 + v * 0x40, alpha 0, where v is 0 for
 *                     colour and 1 for colour2; AND mask set where
 *                     (x + y) % 5 == 0
 *   mono              monochrome: AND bit set where x < 4, XOR bit set where
 *                     x + y is odd
 *   alpha             32 bits per pixel; blue 0x10, green 0x20, red 0x30,
 *                     alpha y * 17; AND mask clear
 */
#define WIN32_LEAN_AND_MEAN
#ifndef UNICODE
#define UNICODE
#endif
#include <windows.h>
#include <shellapi.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

enum { SIDE = 16, MASK_STRIDE = SIDE / 8 };

static HWND window;
/* The callbacks since the last "clicks", as text. */
static char clicks[4096];
static size_t clicksLength;

static LRESULT CALLBACK windowProcedure(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message > WM_APP && message < WM_APP + 0x4000) {
        int length = snprintf(clicks + clicksLength, sizeof clicks - clicksLength, "click %u %llu %lld\n", message,
                              (unsigned long long)wParam, (long long)lParam);
        if (length > 0 && (size_t)length < sizeof clicks - clicksLength)
            clicksLength += (size_t)length;
        return 0;
    }
    if (message == WM_DESTROY)
        PostQuitMessage(0);
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

static void setBit(BYTE* rows, int x, int y) { rows[y * MASK_STRIDE + x / 8] |= (BYTE)(0x80 >> (x % 8)); }

static HICON makePicture(const char* name)
{
    BYTE andBits[SIDE * MASK_STRIDE] = { 0 };
    if (strcmp(name, "mono") == 0) {
        BYTE xorBits[SIDE * MASK_STRIDE] = { 0 };
        for (int y = 0; y < SIDE; y++)
            for (int x = 0; x < SIDE; x++) {
                if (x < 4)
                    setBit(andBits, x, y);
                if ((x + y) % 2)
                    setBit(xorBits, x, y);
            }
        return CreateIcon(NULL, SIDE, SIDE, 1, 1, andBits, xorBits);
    }
    BOOL alpha = strcmp(name, "alpha") == 0;
    int variant = strcmp(name, "colour2") == 0;
    if (!alpha && !variant && strcmp(name, "colour") != 0)
        return NULL;
    BYTE colour[SIDE * SIDE * 4];
    for (int y = 0; y < SIDE; y++)
        for (int x = 0; x < SIDE; x++) {
            BYTE* pixel = colour + (y * SIDE + x) * 4;
            if (alpha) {
                pixel[0] = 0x10, pixel[1] = 0x20, pixel[2] = 0x30, pixel[3] = (BYTE)(y * 17);
            } else {
                pixel[0] = (BYTE)(x * 16 + variant), pixel[1] = (BYTE)(y * 16);
                pixel[2] = (BYTE)(0x80 + variant * 0x40), pixel[3] = 0;
                if ((x + y) % 5 == 0)
                    setBit(andBits, x, y);
            }
        }
    return CreateIcon(NULL, SIDE, SIDE, 1, 32, andBits, colour);
}

static BOOL notify(DWORD operation, UINT id, UINT flags, HICON picture, UINT callback, DWORD state)
{
    NOTIFYICONDATAW data;
    memset(&data, 0, sizeof data);
    data.cbSize = sizeof data;
    data.hWnd = window;
    data.uID = id;
    data.uFlags = flags;
    data.uCallbackMessage = callback;
    data.hIcon = picture;
    data.dwState = state;
    data.dwStateMask = NIS_HIDDEN;
    _snwprintf(data.szTip, sizeof data.szTip / sizeof *data.szTip, L"Tray check %u", id);
    return Shell_NotifyIconW(operation, &data);
}

static BOOL runCommand(char* line, HANDLE output)
{
    char verb[16] = "", argument[32] = "";
    unsigned id = 0;
    int fields = sscanf(line, "%15s %u %31s", verb, &id, argument);
    BOOL done = FALSE;
    if (strcmp(verb, "exit") == 0) {
        ExitProcess(0);
    } else if (strcmp(verb, "clicks") == 0) {
        done = TRUE;
    } else if (fields == 3 && (strcmp(verb, "add") == 0 || strcmp(verb, "modify") == 0)) {
        HICON picture = makePicture(argument);
        if (picture) {
            done = notify(verb[0] == 'a' ? NIM_ADD : NIM_MODIFY, id, NIF_MESSAGE | NIF_ICON | NIF_TIP, picture,
                          WM_APP + id, 0);
            DestroyIcon(picture);
        }
    } else if (fields == 3 && strcmp(verb, "callback") == 0) {
        done = notify(NIM_MODIFY, id, NIF_MESSAGE, NULL, (UINT)strtoul(argument, NULL, 0), 0);
    } else if (fields == 2 && (strcmp(verb, "hide") == 0 || strcmp(verb, "show") == 0)) {
        done = notify(NIM_MODIFY, id, NIF_STATE, NULL, 0, verb[0] == 'h' ? NIS_HIDDEN : 0);
    } else if (fields == 2 && strcmp(verb, "delete") == 0) {
        done = notify(NIM_DELETE, id, 0, NULL, 0, 0);
    }
    char answer[64 + sizeof clicks];
    int length = done ? snprintf(answer, sizeof answer, "ok %lld\n", (long long)(LONG_PTR)window)
                      : snprintf(answer, sizeof answer, "failed\n");
    if (done && strcmp(verb, "clicks") == 0) {
        length += snprintf(answer + length, sizeof answer - (size_t)length, "%.*send\n", (int)clicksLength, clicks);
        clicksLength = 0;
    }
    DWORD written = 0;
    return WriteFile(output, answer, (DWORD)length, &written, NULL);
}

/* Unix time in microseconds, the clock the launcher's side reads too. */
static long long unixMicroseconds(void)
{
    FILETIME now;
    GetSystemTimePreciseAsFileTime(&now);
    ULARGE_INTEGER ticks = { .LowPart = now.dwLowDateTime, .HighPart = now.dwHighDateTime };
    return (long long)((ticks.QuadPart - 116444736000000000ULL) / 10);
}

static int bench(const wchar_t* path)
{
    const int count = 50;
    HANDLE times = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (times == INVALID_HANDLE_VALUE)
        return 2;
    HICON pictures[2] = { makePicture("colour"), makePicture("colour2") };
    notify(NIM_ADD, 1, NIF_MESSAGE | NIF_ICON | NIF_TIP, pictures[0], WM_APP + 1, 0);
    Sleep(1000);
    for (int i = 0; i < count; i++) {
        char line[32];
        int length = snprintf(line, sizeof line, "%lld\n", unixMicroseconds());
        notify(NIM_MODIFY, 1, NIF_MESSAGE | NIF_ICON | NIF_TIP, pictures[(i + 1) % 2], WM_APP + 1, 0);
        DWORD written = 0;
        WriteFile(times, line, (DWORD)length, &written, NULL);
        Sleep(333);
    }
    CloseHandle(times);
    MSG message;
    while (GetMessageW(&message, NULL, 0, 0) > 0)
        DispatchMessageW(&message);
    notify(NIM_DELETE, 1, 0, NULL, 0, 0);
    return 0;
}

int wmain(int argc, wchar_t** argv)
{
    WNDCLASSW windowClass;
    memset(&windowClass, 0, sizeof windowClass);
    windowClass.lpfnWndProc = windowProcedure;
    windowClass.hInstance = GetModuleHandleW(NULL);
    windowClass.lpszClassName = L"VTCheckTray";
    RegisterClassW(&windowClass);
    window = CreateWindowExW(0, windowClass.lpszClassName, L"Tray check", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, NULL,
                             NULL, windowClass.hInstance, NULL);
    if (!window)
        return 1;

    if (argc == 2)
        return bench(argv[1]);

    HANDLE input = GetStdHandle(STD_INPUT_HANDLE), output = GetStdHandle(STD_OUTPUT_HANDLE);
    char pending[1024];
    size_t size = 0;
    for (;;) {
        /* The callbacks come as posted messages, between the commands. */
        MSG message;
        while (PeekMessageW(&message, NULL, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
        char* end = memchr(pending, '\n', size);
        if (!end) {
            DWORD count = 0;
            if (size == sizeof pending || !ReadFile(input, pending + size, (DWORD)(sizeof pending - size), &count, NULL)
                || count == 0)
                ExitProcess(0);
            size += count;
            continue;
        }
        *end = 0;
        if (!runCommand(pending, output))
            ExitProcess(0);
        size -= (size_t)(end + 1 - pending);
        memmove(pending, end + 1, size);
    }
}
