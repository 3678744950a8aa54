/*
 * traybridge.exe: one launcher's tray inside the bottle, for the product over
 * Debian's Wine.
 *
 *   traybridge -t <tag>
 *
 * The product's `wine` tool starts it beside the launcher's window-command
 * tool, once per launcher, with its standard output a unix pipe to a small
 * forwarder of the tool's (which hands each message on to the launcher's tray
 * socket, one connection per message) and its standard input a pipe from that
 * forwarder: at the end of its input the bridge ends.
 *
 * Wine's shell32 sends every Shell_NotifyIcon to the topmost top-level window
 * of class "Shell_TrayWnd" as WM_COPYDATA: dwData the NIM_* operation, the
 * data Wine's own 960-byte record (window, id, flags, callback message, tip,
 * state, balloon texts, guid, then the icon's width, height, planes and bits
 * per pixel) followed by the icon's AND mask and colour bits as GetBitmapBits
 * gives them. The bridge owns a hidden window of that class above Wine's own
 * tray (explorer's), and for each message:
 *
 *   - When the icon's window belongs to a process whose environment holds
 *     VT_WINDOW_TAG=<tag> (the launcher's program), the icon becomes one of
 *     the launcher's tray messages, written to standard output: the code 74
 *     (4 bytes), the operation (8 bytes: 0 add, 1 modify, 2 delete), the
 *     record's length (4 bytes) and the record in the launcher's 64-bit
 *     layout: NOTIFYICONDATAW's fields at their 64-bit places (window
 *     sign-extended to 8 bytes at 0, id 8, flags 12, callback message 16,
 *     tip 32, state 288, balloon texts from 296, guid 944; the handles at 24
 *     and 960 zero), then width 968, height 972, planes 976 (1) and bits per
 *     pixel 980 (always 32), and at 984 the mask and the colour bits: rows
 *     top first, no padding, the width rounded up to a multiple of 16 with
 *     see-through pixels, a mask bit set for a see-through pixel (leftmost
 *     pixel in the top bit), colour as blue, green, red and alpha (255, or 0
 *     where the mask is set). Wine's bits are turned into that from 32, 24,
 *     16 (5-5-5) and 1 bit per pixel; at 32 an icon whose alpha bytes are
 *     used is see-through where alpha is below 128, whatever its mask says;
 *     a monochrome icon is white where its XOR bit is set and black where
 *     not, and its screen-inverting pixels (both bits set) are black.
 *     The record keeps everything the program said of the icon, so each
 *     message carries the whole icon: a modify of the callback message alone
 *     still sends the picture. A modify of an icon the launcher does not have
 *     is sent as an add (the program added it before the bridge was there);
 *     an icon hidden with NIS_HIDDEN is deleted from the launcher and added
 *     again when shown; an icon whose window has gone (the program ended
 *     without deleting it) is deleted within a second. The program gets its
 *     answer (TRUE) before anything is written: the pipe is written from a
 *     thread of its own, so a slow launcher never holds up the program.
 *   - Every message, the program's or another's, is then sent on unchanged
 *     to the next "Shell_TrayWnd" below the bridge (another launcher's bridge
 *     or Wine's own tray), so Wine's tray goes on as before. Another
 *     program's message gets that window's answer.
 *
 * Several launchers of one bottle each have a bridge; each passes on what it
 * gets, so each sees every message. When Wine's tray window comes up above
 * the bridge (its desktop process started late or again), the bridge moves
 * back on top and posts "TaskbarCreated" to the program's windows, the
 * message a Windows tray sends when it starts, so that programs that heed it
 * add their icons again.
 *
 * Messages go to standard error. Exit status 0 at the end of its input, 2
 * for a bad command line, 1 when it could not start.
 */
#define WIN32_LEAN_AND_MEAN
#ifndef UNICODE
#define UNICODE
#endif
#include <windows.h>
#include <shellapi.h>

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "tagged.h"

/* Wine's record (shell32's struct notify_data). */
enum {
    WINE_WINDOW = 0,
    WINE_ID = 4,
    WINE_FLAGS = 8,
    WINE_CALLBACK = 12,
    WINE_TIP = 16,
    WINE_STATE = 272,
    WINE_STATE_MASK = 276,
    WINE_INFO = 280, /* szInfo, uTimeout, szInfoTitle, dwInfoFlags */
    WINE_GUID = 928,
    WINE_GUID_END = 944,
    WINE_WIDTH = 944,
    WINE_HEIGHT = 948,
    WINE_PLANES = 952,
    WINE_BPP = 956,
    WINE_RECORD = 960,
};

/* The launcher's record (64-bit). */
enum {
    OUT_WINDOW = 0,
    OUT_ID = 8,
    OUT_FLAGS = 12,
    OUT_CALLBACK = 16,
    OUT_TIP = 32,
    /* From the tip to the guid the fields lie as in Wine's record. */
    OUT_STATE = OUT_TIP + (WINE_STATE - WINE_TIP),
    OUT_INFO = OUT_TIP + (WINE_INFO - WINE_TIP),
    OUT_GUID = OUT_TIP + (WINE_GUID - WINE_TIP),
    OUT_WIDTH = 968,
    OUT_HEIGHT = 972,
    OUT_PLANES = 976,
    OUT_BPP = 980,
    OUT_HEADER = 984,
};

enum { TRAY_CODE = 74, OP_ADD = 0, OP_MODIFY = 1, OP_DELETE = 2 };
enum { MESSAGE_HEADER = 16 };
/* The largest icon the launcher takes. */
enum { MAX_SIDE = 256 };
/* A launcher that stops reading gets no more pictures once this much waits;
 * adds and deletes are still queued, so the icons it shows stay right. */
enum { QUEUE_LIMIT = 8 * 1024 * 1024 };
enum { MAX_ICONS = 4096 };
enum { SWEEP_TIMER = 1, SWEEP_MS = 1000, WINE_TRAY_WAIT_MS = 5000 };
enum { WM_BRIDGE_END = WM_APP + 1 };

static const wchar_t trayClass[] = L"Shell_TrayWnd";
/* How one bridge knows another: Wine's tray window has no title. */
static const wchar_t bridgeTitle[] = L"Launcher tray bridge";

static wchar_t tag[64];
static HWND bridgeWindow;
static UINT taskbarCreated;

static void say(const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(text, sizeof text - 1, format, arguments);
    va_end(arguments);
    if (length < 0)
        return;
    if ((size_t)length > sizeof text - 2)
        length = sizeof text - 2;
    text[length++] = '\n';
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, (DWORD)length, &written, NULL);
}

static uint32_t read32(const BYTE* at)
{
    uint32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

static void write32(BYTE* at, uint32_t value) { memcpy(at, &value, sizeof value); }

/* ---- the pipe to the forwarder ---- */

typedef struct Message {
    struct Message* next;
    size_t size;
    BYTE bytes[];
} Message;

static CRITICAL_SECTION queueLock;
static CONDITION_VARIABLE queueFilled;
static Message *queueHead, *queueTail;
static size_t queuedBytes;
static BOOL dropsSaid;

static void enqueue(uint64_t operation, const BYTE* header, const BYTE* bits, size_t bitsSize)
{
    size_t recordSize = OUT_HEADER + bitsSize;
    Message* message = malloc(sizeof *message + MESSAGE_HEADER + recordSize);
    if (!message)
        return;
    message->next = NULL;
    message->size = MESSAGE_HEADER + recordSize;
    write32(message->bytes, TRAY_CODE);
    memcpy(message->bytes + 4, &operation, sizeof operation);
    write32(message->bytes + 12, (uint32_t)recordSize);
    memcpy(message->bytes + MESSAGE_HEADER, header, OUT_HEADER);
    if (bitsSize)
        memcpy(message->bytes + MESSAGE_HEADER + OUT_HEADER, bits, bitsSize);

    EnterCriticalSection(&queueLock);
    if (operation == OP_MODIFY && queuedBytes > QUEUE_LIMIT) {
        if (!dropsSaid)
            say("traybridge: the launcher is not reading; new pictures of its icons are dropped until it does");
        dropsSaid = TRUE;
        LeaveCriticalSection(&queueLock);
        free(message);
        return;
    }
    if (queueTail)
        queueTail->next = message;
    else
        queueHead = message;
    queueTail = message;
    queuedBytes += message->size;
    LeaveCriticalSection(&queueLock);
    WakeConditionVariable(&queueFilled);
}

static DWORD WINAPI writeMessages(void* unused)
{
    (void)unused;
    HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    for (;;) {
        EnterCriticalSection(&queueLock);
        while (!queueHead)
            SleepConditionVariableCS(&queueFilled, &queueLock, INFINITE);
        Message* message = queueHead;
        queueHead = message->next;
        if (!queueHead)
            queueTail = NULL;
        queuedBytes -= message->size;
        if (queuedBytes <= QUEUE_LIMIT / 2)
            dropsSaid = FALSE;
        LeaveCriticalSection(&queueLock);

        for (size_t done = 0; done < message->size;) {
            DWORD written = 0;
            DWORD chunk = (DWORD)(message->size - done);
            if (!WriteFile(output, message->bytes + done, chunk, &written, NULL) || written == 0) {
                /* The forwarder has gone, and with it the launcher. */
                free(message);
                PostMessageW(bridgeWindow, WM_BRIDGE_END, 0, 0);
                return 0;
            }
            done += written;
        }
        free(message);
    }
}

static DWORD WINAPI watchInput(void* unused)
{
    (void)unused;
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    char buffer[256];
    DWORD count = 0;
    /* Nothing is ever said on it: it only ends. */
    while (ReadFile(input, buffer, sizeof buffer, &count, NULL) && count > 0) {
    }
    PostMessageW(bridgeWindow, WM_BRIDGE_END, 0, 0);
    return 0;
}

/* ---- the icons ---- */

typedef struct {
    LONG window;
    UINT id;
    BOOL ours; /* the launcher's program's: sent on */
    BOOL hidden;
    BOOL shown; /* the launcher has it */
    BYTE header[OUT_HEADER];
    BYTE* bits; /* mask and colour as the launcher takes them; NULL until a picture came */
    size_t bitsSize;
} Icon;

static Icon* icons;
static size_t iconCount;

static Icon* findIcon(LONG window, UINT id)
{
    for (size_t i = 0; i < iconCount; i++)
        if (icons[i].window == window && icons[i].id == id)
            return &icons[i];
    return NULL;
}

static Icon* addIcon(LONG window, UINT id, BOOL ours)
{
    if (iconCount == MAX_ICONS)
        return NULL;
    Icon* grown = realloc(icons, (iconCount + 1) * sizeof *icons);
    if (!grown)
        return NULL;
    icons = grown;
    Icon* icon = &icons[iconCount++];
    memset(icon, 0, sizeof *icon);
    icon->window = window;
    icon->id = id;
    icon->ours = ours;
    int64_t wideWindow = window;
    memcpy(icon->header + OUT_WINDOW, &wideWindow, sizeof wideWindow);
    write32(icon->header + OUT_ID, id);
    return icon;
}

static void removeIcon(Icon* icon)
{
    free(icon->bits);
    size_t index = (size_t)(icon - icons);
    memmove(icon, icon + 1, (iconCount - index - 1) * sizeof *icon);
    iconCount--;
}

static void sendIcon(Icon* icon, uint64_t operation)
{
    if (operation == OP_DELETE)
        enqueue(OP_DELETE, icon->header, NULL, 0);
    else
        enqueue(operation, icon->header, icon->bits, icon->bitsSize);
}

/* Whether the window's process is the launcher's program. A process whose
 * environment cannot be read is not: a stranger's icon on the launcher's
 * own would be wrong, where Wine's tray still shows a missed one. */
static BOOL windowIsOurs(LONG window)
{
    DWORD pid = 0;
    if (!GetWindowThreadProcessId((HWND)(LONG_PTR)window, &pid) || pid == GetCurrentProcessId())
        return FALSE;
    return processTag(pid, tag) == TAG_PRESENT;
}

/* One bit of a bitmap whose rows are `stride` bytes apart, within `size`
 * bytes; what Wine did not send counts as clear. */
static int bitAt(const BYTE* data, size_t size, size_t stride, UINT x, UINT y)
{
    size_t at = (size_t)y * stride + x / 8;
    return at < size && (data[at] & (0x80 >> (x & 7)));
}

/* Turns Wine's picture into the launcher's (see the header comment); FALSE
 * for one it cannot take. */
static BOOL takePicture(Icon* icon, const BYTE* record, size_t size)
{
    UINT width = read32(record + WINE_WIDTH), height = read32(record + WINE_HEIGHT);
    UINT planes = read32(record + WINE_PLANES), bpp = read32(record + WINE_BPP);
    if (!width || !height || width > MAX_SIDE || height > MAX_SIDE || planes != 1
        || (bpp != 32 && bpp != 24 && bpp != 16 && bpp != 1)) {
        say("traybridge: an icon of %ux%u, %u plane(s) at %u bits per pixel is not shown", width, height, planes,
            bpp);
        return FALSE;
    }
    /* Wine's layout: rows as GetBitmapBits gives them (2-byte aligned), the
     * colour after the mask's whole rounded size; a monochrome icon's mask
     * is twice as high, its second half the XOR bits. */
    const BYTE* data = record + WINE_RECORD;
    size_t available = size - WINE_RECORD;
    size_t maskStride = ((width + 15) / 16) * 2;
    size_t maskSize = ((size_t)width * height * (bpp == 1 ? 2 : 1) + 15) / 16 * 2;
    const BYTE* mask = data;
    size_t maskAvailable = available < maskSize ? available : maskSize;
    const BYTE* colour = data + maskAvailable;
    size_t colourAvailable = available - maskAvailable;
    size_t colourStride = ((size_t)width * bpp + 15) / 16 * 2;

    BOOL alphaUsed = FALSE;
    if (bpp == 32)
        for (UINT y = 0; y < height && !alphaUsed; y++)
            for (UINT x = 0; x < width && !alphaUsed; x++) {
                size_t at = y * colourStride + x * 4 + 3;
                alphaUsed = at < colourAvailable && colour[at] != 0;
            }

    UINT outWidth = (width + 15) & ~15u;
    size_t outMaskStride = outWidth / 8;
    size_t outMaskSize = outMaskStride * height;
    size_t outColourSize = (size_t)outWidth * height * 4;
    BYTE* bits = calloc(1, outMaskSize + outColourSize);
    if (!bits)
        return FALSE;
    BYTE* outMask = bits;
    BYTE* outColour = bits + outMaskSize;
    for (UINT y = 0; y < height; y++)
        for (UINT x = 0; x < outWidth; x++) {
            BYTE* pixel = outColour + ((size_t)y * outWidth + x) * 4;
            BOOL seeThrough = TRUE;
            if (x < width) {
                seeThrough = bitAt(mask, maskAvailable, maskStride, x, y);
                if (bpp == 1) {
                    BOOL white = bitAt(mask, maskAvailable, maskStride, x, y + height);
                    if (seeThrough && white) /* inverts the screen: shown black */
                        seeThrough = white = FALSE;
                    memset(pixel, white ? 0xff : 0, 3);
                } else {
                    size_t bytes = bpp / 8;
                    size_t at = y * colourStride + x * bytes;
                    BYTE source[4] = { 0, 0, 0, 0 };
                    if (at + bytes <= colourAvailable)
                        memcpy(source, colour + at, bytes);
                    if (bpp == 16) {
                        unsigned value = source[0] | source[1] << 8;
                        unsigned blue = value & 31, green = (value >> 5) & 31, red = (value >> 10) & 31;
                        source[0] = (BYTE)(blue << 3 | blue >> 2);
                        source[1] = (BYTE)(green << 3 | green >> 2);
                        source[2] = (BYTE)(red << 3 | red >> 2);
                    }
                    memcpy(pixel, source, 3);
                    if (alphaUsed)
                        seeThrough = source[3] < 128;
                }
            }
            pixel[3] = seeThrough ? 0 : 255;
            if (seeThrough)
                outMask[y * outMaskStride + x / 8] |= (BYTE)(0x80 >> (x & 7));
        }

    free(icon->bits);
    icon->bits = bits;
    icon->bitsSize = outMaskSize + outColourSize;
    write32(icon->header + OUT_WIDTH, outWidth);
    write32(icon->header + OUT_HEIGHT, height);
    write32(icon->header + OUT_PLANES, 1);
    write32(icon->header + OUT_BPP, 32);
    return TRUE;
}

/* What the message says of the icon, as NIM_MODIFY reads it: only what its
 * flags name changes. */
static void takeFields(Icon* icon, const BYTE* record, size_t size)
{
    UINT flags = read32(record + WINE_FLAGS);
    write32(icon->header + OUT_FLAGS, read32(icon->header + OUT_FLAGS) | flags);
    if (flags & NIF_MESSAGE)
        memcpy(icon->header + OUT_CALLBACK, record + WINE_CALLBACK, 4);
    /* Wine's record holds zeros where the flags say nothing: the old
     * values stay. */
    if (flags & NIF_TIP)
        memcpy(icon->header + OUT_TIP, record + WINE_TIP, WINE_STATE - WINE_TIP);
    if (flags & NIF_INFO)
        memcpy(icon->header + OUT_INFO, record + WINE_INFO, WINE_GUID - WINE_INFO);
    if (flags & NIF_GUID)
        memcpy(icon->header + OUT_GUID, record + WINE_GUID, WINE_GUID_END - WINE_GUID);
    if (flags & NIF_STATE) {
        UINT mask = read32(record + WINE_STATE_MASK);
        UINT state = (read32(icon->header + OUT_STATE) & ~mask) | (read32(record + WINE_STATE) & mask);
        write32(icon->header + OUT_STATE, state);
        write32(icon->header + OUT_STATE + 4, read32(icon->header + OUT_STATE + 4) | mask);
        if (mask & NIS_HIDDEN)
            icon->hidden = (state & NIS_HIDDEN) != 0;
    }
    if ((flags & NIF_ICON) && size > WINE_RECORD)
        takePicture(icon, record, size);
}

/* Brings the launcher up to date with the program's icon after an add or a
 * modify. */
static void showIcon(Icon* icon, BOOL added)
{
    if (icon->hidden) {
        if (icon->shown)
            sendIcon(icon, OP_DELETE);
        icon->shown = FALSE;
    } else if (icon->bits) {
        sendIcon(icon, added || !icon->shown ? OP_ADD : OP_MODIFY);
        icon->shown = TRUE;
    }
}

/* Takes one tray message; TRUE when it was the launcher's program's. */
static BOOL takeMessage(ULONG_PTR operation, const BYTE* record, size_t size)
{
    LONG window = (LONG)read32(record + WINE_WINDOW);
    UINT id = read32(record + WINE_ID);
    Icon* icon = findIcon(window, id);
    switch (operation) {
    case NIM_ADD:
    case NIM_MODIFY:
        if (!icon && !(icon = addIcon(window, id, windowIsOurs(window))))
            return FALSE;
        if (!icon->ours)
            return FALSE;
        takeFields(icon, record, size);
        showIcon(icon, operation == NIM_ADD);
        return TRUE;
    case NIM_DELETE: {
        if (!icon)
            return FALSE;
        BOOL ours = icon->ours;
        if (ours && icon->shown)
            sendIcon(icon, OP_DELETE);
        removeIcon(icon);
        return ours;
    }
    default: /* NIM_SETFOCUS, NIM_SETVERSION: nothing the launcher shows */
        return icon && icon->ours;
    }
}

/* ---- the window ---- */

static BOOL isBridge(HWND window)
{
    wchar_t title[64];
    /* Read from Wine's server: never waits for another process. */
    int length = InternalGetWindowText(window, title, sizeof title / sizeof *title);
    return length > 0 && wcscmp(title, bridgeTitle) == 0;
}

static BOOL CALLBACK askWindowForIcons(HWND window, LPARAM unused)
{
    (void)unused;
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    if (pid != GetCurrentProcessId() && processTag(pid, tag) == TAG_PRESENT)
        PostMessageW(window, taskbarCreated, 0, 0);
    return TRUE;
}

/* Keeps the bridge above Wine's own tray, which would otherwise get the
 * program's icons first and keep them. Other bridges may stay above: they
 * pass everything on. */
static void keepAboveWineTray(void)
{
    for (HWND other = FindWindowExW(NULL, NULL, trayClass, NULL); other && other != bridgeWindow;
         other = FindWindowExW(NULL, other, trayClass, NULL)) {
        if (!isBridge(other)) {
            SetWindowPos(bridgeWindow, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
            EnumWindows(askWindowForIcons, 0);
            return;
        }
    }
}

/* Deletes the icons whose window has gone: a program that ends without
 * deleting its icon says nothing. */
static void sweepIcons(void)
{
    for (size_t i = 0; i < iconCount;) {
        if (IsWindow((HWND)(LONG_PTR)icons[i].window)) {
            i++;
            continue;
        }
        if (icons[i].ours && icons[i].shown)
            sendIcon(&icons[i], OP_DELETE);
        removeIcon(&icons[i]);
    }
}

static LRESULT passOn(HWND window, WPARAM from, COPYDATASTRUCT* data)
{
    HWND next = FindWindowExW(NULL, window, trayClass, NULL);
    DWORD_PTR result = FALSE;
    if (next && !SendMessageTimeoutW(next, WM_COPYDATA, from, (LPARAM)data, SMTO_ABORTIFHUNG, 5000, &result))
        result = FALSE;
    return (LRESULT)result;
}

static LRESULT CALLBACK windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case WM_COPYDATA: {
        COPYDATASTRUCT* data = (COPYDATASTRUCT*)lParam;
        BOOL ours = data && data->lpData && data->cbData >= WINE_RECORD
            && takeMessage(data->dwData, data->lpData, data->cbData);
        if (ours)
            ReplyMessage(TRUE);
        LRESULT passed = data ? passOn(window, wParam, data) : FALSE;
        return ours ? TRUE : passed;
    }
    case WM_TIMER:
        if (wParam == SWEEP_TIMER) {
            sweepIcons();
            keepAboveWineTray();
        }
        return 0;
    case WM_CLOSE:
        /* Only the end of its input ends the bridge. */
        return 0;
    case WM_BRIDGE_END:
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3 || wcscmp(argv[1], L"-t") != 0 || !argv[2][0] || wcslen(argv[2]) >= sizeof tag / sizeof *tag) {
        say("usage: traybridge -t TAG");
        return 2;
    }
    wcscpy(tag, argv[2]);
    taskbarCreated = RegisterWindowMessageW(L"TaskbarCreated");
    InitializeCriticalSection(&queueLock);
    InitializeConditionVariable(&queueFilled);

    /* Asking for the desktop starts Wine's desktop process, whose tray
     * window comes a moment later; the bridge's must be made after it to be
     * above it. */
    GetDesktopWindow();
    for (DWORD waited = 0; !FindWindowExW(NULL, NULL, trayClass, NULL) && waited < WINE_TRAY_WAIT_MS; waited += 20)
        Sleep(20);

    WNDCLASSEXW windowClass;
    memset(&windowClass, 0, sizeof windowClass);
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = windowProcedure;
    windowClass.hInstance = GetModuleHandleW(NULL);
    windowClass.lpszClassName = trayClass;
    if (!RegisterClassExW(&windowClass)) {
        say("traybridge: cannot register the tray's window class (error %lu)", GetLastError());
        return 1;
    }
    bridgeWindow = CreateWindowExW(WS_EX_TOOLWINDOW | WS_EX_NOACTIVATE, trayClass, bridgeTitle, WS_POPUP, 0, 0, 0, 0,
                                   NULL, NULL, windowClass.hInstance, NULL);
    if (!bridgeWindow) {
        say("traybridge: cannot make the tray's window (error %lu)", GetLastError());
        return 1;
    }
    HANDLE writer = CreateThread(NULL, 0, writeMessages, NULL, 0, NULL);
    HANDLE watcher = CreateThread(NULL, 0, watchInput, NULL, 0, NULL);
    if (!writer || !watcher) {
        say("traybridge: cannot start its threads (error %lu)", GetLastError());
        return 1;
    }
    CloseHandle(writer);
    CloseHandle(watcher);
    SetTimer(bridgeWindow, SWEEP_TIMER, SWEEP_MS, NULL);
    /* A program that started first may have given its icons to Wine's tray. */
    EnumWindows(askWindowForIcons, 0);

    MSG message;
    while (GetMessageW(&message, NULL, 0, 0) > 0)
        DispatchMessageW(&message);
    /* Whatever waits in the queue has no launcher left to go to. */
    return 0;
}
