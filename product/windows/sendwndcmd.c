/*
 * sendwndcmd.exe: the window-command tool of the product over Debian's Wine.
 *
 * The launcher starts it once, through the product's `wine` tool, with
 *   sendwndcmd -n -e explorer;apprunner
 * and keeps it for the whole session, talking to it over its standard input
 * and output (unix pipes that Wine hands over as the program's standard
 * handles).
 *
 * Options:
 *   -n               no console window of its own. Started from a unix pipe,
 *                    Wine gives the tool none anyway; the option is accepted
 *                    so the launcher's command line works unchanged.
 *   -e <a;b;...>     processes to leave alone, by image name without ".exe",
 *                    compared without regard to case (the launcher names the
 *                    desktop shell and the program runner, whose windows are
 *                    not the program's). Wine's own processes (services,
 *                    winedevice, plugplay, svchost, rpcss, conhost, wineboot,
 *                    winedbg, and start, which only waits for the program it
 *                    runs) are always left alone: the first program of a
 *                    bottle starts Wine's services, which so inherit its
 *                    environment, tag included, and their hidden windows are
 *                    not the program's to end. The tool itself is left alone
 *                    too.
 *
 * Requests, one per line:
 *   -t <tag> -c <id> -a <command text to the end of the line>
 * Answers, one per request, in one write: "<id>:1\n" for yes, "<id>:0\n" for
 * no. A line that is not a request gets "?:0\n". At the end of its input the
 * tool exits with status 0.
 *
 * The tagged windows: the top-level windows of the processes whose
 * environment holds VT_WINDOW_TAG=<tag> (the launcher's process id, which the
 * program's processes inherit from the launcher's environment). The
 * environment is read from the process itself (its PEB, then its process
 * parameters); a process whose environment cannot be read counts as tagged
 * unless its name is left alone, so that a window is never hidden from the
 * launcher for want of a permission. Input-method windows are not the
 * program's own and never count.
 *
 * Commands:
 *   haswindows        1 when a tagged window is visible.
 *   close             whether closing may proceed: 0 while a visible tagged
 *                     window is disabled, which is how a Windows program
 *                     shows that a modal dialog is up and waiting for the
 *                     user; that dialog is brought forward so the user sees
 *                     why the quit did not happen. 1 otherwise, also when
 *                     there is no tagged window at all.
 *   queryendsession   WM_QUERYENDSESSION to every tagged window; 1 only when
 *                     every one agrees. A program may ask its user (a "save
 *                     changes?" box) before it answers, so the tool waits for
 *                     as long as the program keeps taking messages; a program
 *                     that stops taking them (hung) counts as refusing, since
 *                     ending it could lose the user's work.
 *   endsession        WM_ENDSESSION(TRUE) to every tagged window; answers 1.
 *   endsessioncancel  WM_ENDSESSION(FALSE) to every tagged window; answers 1.
 *   shutdown          WM_CLOSE posted to every tagged window that no other
 *                     window owns (a dialog closes with its owner); the
 *                     program's processes then end on their own, nothing is
 *                     killed. Answers 1.
 *   activatesystray -h <hwnd> -m <message> -s <id>
 *                     a click on a tray icon: the icon's callback message
 *                     posted to its window, wParam the icon's id, lParam
 *                     WM_LBUTTONDOWN, then again with WM_LBUTTONUP. Answers 1
 *                     (0 when the window is gone or the arguments are bad).
 * Any other command is answered 0.
 */
#define WIN32_LEAN_AND_MEAN
#ifndef UNICODE
#define UNICODE
#endif
#include <windows.h>
#include <tlhelp32.h>

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "tagged.h"

/* Wine's own processes: see the header comment. */
static const wchar_t* const systemProcesses[] = {
    L"services", L"winedevice", L"plugplay", L"svchost", L"rpcss", L"conhost", L"wineboot", L"winedbg", L"start",
};

/* How long one window may take over WM_QUERYENDSESSION while it still takes
 * messages: long enough for a user to answer a question. */
enum { QUERY_TIMEOUT_MS = 30 * 60 * 1000, END_TIMEOUT_MS = 30 * 1000 };

static wchar_t** excludedNames;
static size_t excludedCount;

/* ---- the tagged processes ---- */

typedef struct {
    DWORD pid;
    BOOL tagged;
} ProcessEntry;

typedef struct {
    ProcessEntry* entries;
    size_t count;
} ProcessTable;

static BOOL nameIsExcluded(const wchar_t* imageName)
{
    wchar_t base[MAX_PATH];
    const wchar_t* slash = wcsrchr(imageName, L'\\');
    wcsncpy(base, slash ? slash + 1 : imageName, MAX_PATH - 1);
    base[MAX_PATH - 1] = 0;
    size_t length = wcslen(base);
    if (length > 4 && _wcsicmp(base + length - 4, L".exe") == 0)
        base[length - 4] = 0;
    for (size_t i = 0; i < excludedCount; i++)
        if (_wcsicmp(base, excludedNames[i]) == 0)
            return TRUE;
    for (size_t i = 0; i < sizeof systemProcesses / sizeof *systemProcesses; i++)
        if (_wcsicmp(base, systemProcesses[i]) == 0)
            return TRUE;
    return FALSE;
}

static BOOL processIsTagged(DWORD pid, const wchar_t* imageName, const wchar_t* tag)
{
    if (pid == GetCurrentProcessId() || nameIsExcluded(imageName))
        return FALSE;
    return processTag(pid, tag) != TAG_ABSENT;
}

/* The processes as they are now: taken anew for every request, since the
 * program starts and ends processes between requests. */
static ProcessTable takeProcessTable(const wchar_t* tag)
{
    ProcessTable table = { NULL, 0 };
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return table;
    PROCESSENTRY32W entry;
    entry.dwSize = sizeof entry;
    size_t capacity = 0;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (table.count == capacity) {
            capacity = capacity ? capacity * 2 : 32;
            ProcessEntry* grown = realloc(table.entries, capacity * sizeof *grown);
            if (!grown)
                break;
            table.entries = grown;
        }
        table.entries[table.count].pid = entry.th32ProcessID;
        table.entries[table.count].tagged = processIsTagged(entry.th32ProcessID, entry.szExeFile, tag);
        table.count++;
    }
    CloseHandle(snapshot);
    return table;
}

static BOOL tableSaysTagged(const ProcessTable* table, DWORD pid)
{
    for (size_t i = 0; i < table->count; i++)
        if (table->entries[i].pid == pid)
            return table->entries[i].tagged;
    /* Started after the snapshot: not known to carry the tag. */
    return FALSE;
}

/* ---- the tagged windows ---- */

typedef struct {
    HWND* windows;
    size_t count;
    size_t capacity;
    const ProcessTable* table;
} WindowList;

static BOOL isInputMethodWindow(HWND window)
{
    wchar_t className[64];
    if (!GetClassNameW(window, className, sizeof className / sizeof *className))
        return FALSE;
    return wcscmp(className, L"IME") == 0 || wcscmp(className, L"MSCTFIME UI") == 0;
}

static BOOL CALLBACK collectWindow(HWND window, LPARAM context)
{
    WindowList* list = (WindowList*)context;
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    if (!tableSaysTagged(list->table, pid) || isInputMethodWindow(window))
        return TRUE;
    if (list->count == list->capacity) {
        size_t capacity = list->capacity ? list->capacity * 2 : 16;
        HWND* grown = realloc(list->windows, capacity * sizeof *grown);
        if (!grown)
            return FALSE;
        list->windows = grown;
        list->capacity = capacity;
    }
    list->windows[list->count++] = window;
    return TRUE;
}

/* The top-level windows of the tagged processes, front to back. */
static WindowList taggedWindows(const wchar_t* tag, ProcessTable* table)
{
    *table = takeProcessTable(tag);
    WindowList list = { NULL, 0, 0, table };
    EnumWindows(collectWindow, (LPARAM)&list);
    return list;
}

/* ---- commands ---- */

static BOOL hasWindows(const WindowList* list)
{
    for (size_t i = 0; i < list->count; i++)
        if (IsWindowVisible(list->windows[i]))
            return TRUE;
    return FALSE;
}

static BOOL mayClose(const WindowList* list)
{
    for (size_t i = 0; i < list->count; i++) {
        HWND window = list->windows[i];
        if (IsWindowVisible(window) && !IsWindowEnabled(window)) {
            HWND dialog = GetLastActivePopup(window);
            if (dialog && dialog != window)
                SetForegroundWindow(dialog);
            return FALSE;
        }
    }
    return TRUE;
}

static BOOL queryEndSession(const WindowList* list)
{
    BOOL everyoneAgrees = TRUE;
    /* Every window is asked, even after a refusal: each program learns that
     * the session may end, as the end-session message that follows expects. */
    for (size_t i = 0; i < list->count; i++) {
        DWORD_PTR result = 0;
        if (!SendMessageTimeoutW(list->windows[i], WM_QUERYENDSESSION, 0, 0, SMTO_ABORTIFHUNG, QUERY_TIMEOUT_MS,
                                 &result)) {
            /* A window that went away meanwhile has nothing to lose. */
            if (IsWindow(list->windows[i]))
                everyoneAgrees = FALSE;
        } else if (!result) {
            everyoneAgrees = FALSE;
        }
    }
    return everyoneAgrees;
}

static void endSession(const WindowList* list, BOOL ending)
{
    for (size_t i = 0; i < list->count; i++) {
        DWORD_PTR result = 0;
        SendMessageTimeoutW(list->windows[i], WM_ENDSESSION, ending, 0, SMTO_ABORTIFHUNG, END_TIMEOUT_MS, &result);
    }
}

static void shutDown(const WindowList* list)
{
    /* Posted, not sent: a program that asks its user something on the way
     * out must not hold up the answer to the launcher. */
    for (size_t i = 0; i < list->count; i++)
        if (IsWindow(list->windows[i]) && !GetWindow(list->windows[i], GW_OWNER))
            PostMessageW(list->windows[i], WM_CLOSE, 0, 0);
}

/* Reads "-<flag> <number>" out of the arguments of activatesystray. */
static BOOL flagNumber(const char* arguments, const char* flag, unsigned long long* value)
{
    for (const char* at = arguments; (at = strstr(at, flag)) != NULL; at++) {
        if (at != arguments && at[-1] != ' ')
            continue;
        const char* digits = at + strlen(flag);
        char* end = NULL;
        *value = strtoull(digits, &end, 10);
        return end != digits;
    }
    return FALSE;
}

static BOOL activateSystray(const char* arguments)
{
    unsigned long long window = 0, message = 0, id = 0;
    if (!flagNumber(arguments, "-h ", &window) || !flagNumber(arguments, "-m ", &message)
        || !flagNumber(arguments, "-s ", &id))
        return FALSE;
    HWND target = (HWND)(ULONG_PTR)window;
    if (!IsWindow(target))
        return FALSE;
    /* The program raises itself on the click; let it. */
    AllowSetForegroundWindow(ASFW_ANY);
    PostMessageW(target, (UINT)message, (WPARAM)id, WM_LBUTTONDOWN);
    PostMessageW(target, (UINT)message, (WPARAM)id, WM_LBUTTONUP);
    return TRUE;
}

static BOOL commandIs(const char* text, const char* name)
{
    size_t length = strlen(name);
    return strncmp(text, name, length) == 0 && (text[length] == 0 || text[length] == ' ');
}

static BOOL runCommand(const char* tagText, const char* text)
{
    if (commandIs(text, "activatesystray"))
        return activateSystray(text + strlen("activatesystray"));

    wchar_t tag[64];
    if (!MultiByteToWideChar(CP_UTF8, 0, tagText, -1, tag, sizeof tag / sizeof *tag))
        return FALSE;
    ProcessTable table;
    WindowList list = taggedWindows(tag, &table);
    BOOL answer = FALSE;
    if (commandIs(text, "haswindows")) {
        answer = hasWindows(&list);
    } else if (commandIs(text, "close")) {
        answer = mayClose(&list);
    } else if (commandIs(text, "queryendsession")) {
        answer = queryEndSession(&list);
    } else if (commandIs(text, "endsessioncancel")) {
        endSession(&list, FALSE);
        answer = TRUE;
    } else if (commandIs(text, "endsession")) {
        endSession(&list, TRUE);
        answer = TRUE;
    } else if (commandIs(text, "shutdown")) {
        shutDown(&list);
        answer = TRUE;
    }
    free(list.windows);
    free(table.entries);
    return answer;
}

/* ---- the channel ---- */

static BOOL writeAnswer(HANDLE output, const char* answer)
{
    DWORD length = (DWORD)strlen(answer), written = 0;
    /* One write per answer: the launcher takes a single read as the whole
     * answer. */
    return WriteFile(output, answer, length, &written, NULL) && written == length;
}

/* Answers one request line (without its line end); FALSE when the launcher
 * can no longer be answered. */
static BOOL answerLine(HANDLE output, char* line)
{
    size_t length = strlen(line);
    if (length && line[length - 1] == '\r')
        line[--length] = 0;
    char* idStart = strncmp(line, "-t ", 3) == 0 ? strstr(line + 3, " -c ") : NULL;
    char* textStart = idStart ? strstr(idStart + 4, " -a ") : NULL;
    if (!textStart)
        return writeAnswer(output, "?:0\n");
    *idStart = 0;
    *textStart = 0;
    const char* tag = line + 3;
    const char* id = idStart + 4;
    const char* text = textStart + 4;

    BOOL result = runCommand(tag, text);
    size_t answerLength = strlen(id) + 4;
    char* answer = malloc(answerLength);
    if (!answer)
        return FALSE;
    snprintf(answer, answerLength, "%s:%d\n", id, result ? 1 : 0);
    BOOL written = writeAnswer(output, answer);
    free(answer);
    return written;
}

static void parseExclusions(const wchar_t* list)
{
    wchar_t* copy = _wcsdup(list);
    if (!copy)
        return;
    size_t count = 1;
    for (const wchar_t* at = copy; *at; at++)
        count += *at == L';';
    excludedNames = calloc(count, sizeof *excludedNames);
    if (!excludedNames)
        return;
    for (wchar_t* name = copy;;) {
        wchar_t* end = wcschr(name, L';');
        if (end)
            *end = 0;
        if (*name)
            excludedNames[excludedCount++] = name;
        if (!end)
            return;
        name = end + 1;
    }
}

int wmain(int argc, wchar_t** argv)
{
    for (int i = 1; i < argc; i++) {
        if (wcscmp(argv[i], L"-e") == 0 && i + 1 < argc)
            parseExclusions(argv[++i]);
        /* -n and anything else: nothing to do (see the header comment). */
    }

    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    size_t size = 0, capacity = 4096;
    char* pending = malloc(capacity);
    if (!pending)
        return 1;
    for (;;) {
        if (capacity - size < 4096) {
            char* grown = realloc(pending, capacity * 2);
            if (!grown)
                return 1;
            pending = grown;
            capacity *= 2;
        }
        DWORD count = 0;
        /* A pipe whose writer has gone ends with a failed or empty read. */
        if (!ReadFile(input, pending + size, 4096, &count, NULL) || count == 0)
            return 0;
        size += count;
        size_t start = 0;
        for (char* end; (end = memchr(pending + start, '\n', size - start)) != NULL;) {
            *end = 0;
            if (memchr(pending + start, 0, (size_t)(end - (pending + start))) != NULL) {
                if (!writeAnswer(output, "?:0\n"))
                    return 0;
            } else if (!answerLine(output, pending + start)) {
                return 0;
            }
            start = (size_t)(end - pending) + 1;
        }
        memmove(pending, pending + start, size - start);
        size -= start;
    }
}
