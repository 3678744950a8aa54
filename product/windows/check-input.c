/*
 * check-input.exe: plays the user at scratchpad's window for
 * check-windows-side, from inside the bottle, so the check needs no X input
 * tool.
 *
 *   check-input <title> type <text>  types the text into the window's edit box,
 *                                    a character at a time, as the keyboard
 *                                    would
 *   check-input <title> save         File > Save
 *   check-input <title> close        the window's close button (WM_CLOSE)
 *   check-input <title> cancel       Cancel in the dialog the window shows
 *   check-input <title> minimize     the window minimized
 *   check-input <title> shown        exit status 0 when the window is shown
 *                                    and not minimized
 *   check-input <title> hwnd         prints the window's handle in decimal
 *
 * <title> is the window's whole title. Exit status 0 when scratchpad's window
 * was found and the step done, 1 otherwise.
 */
#ifndef UNICODE
#define UNICODE
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

/* scratchpad's window class and the command of its File > Save. */
static const wchar_t scratchpadClass[] = L"VTScratchpad";
enum { ID_SAVE = 100 };

static BOOL CALLBACK findDialog(HWND window, LPARAM context)
{
    HWND* owner = (HWND*)context;
    if (GetWindow(window, GW_OWNER) != *owner || !IsWindowVisible(window))
        return TRUE;
    *owner = window;
    return FALSE;
}

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3)
        return 1;
    HWND window = FindWindowW(scratchpadClass, argv[1]);
    HWND edit = window ? FindWindowExW(window, NULL, L"EDIT", NULL) : NULL;
    if (!edit)
        return 1;
    const wchar_t* step = argv[2];
    if (wcscmp(step, L"type") == 0 && argc > 3) {
        /* At the end of the text, after what is there. Asked of the window
         * itself: GetWindowTextLength does not reach into another process's
         * edit box. */
        LRESULT end = SendMessageW(edit, WM_GETTEXTLENGTH, 0, 0);
        SendMessageW(edit, EM_SETSEL, (WPARAM)end, (LPARAM)end);
        for (const wchar_t* c = argv[3]; *c; c++)
            SendMessageW(edit, WM_CHAR, *c, 1);
        return 0;
    }
    if (wcscmp(step, L"save") == 0) {
        SendMessageW(window, WM_COMMAND, ID_SAVE, 0);
        return 0;
    }
    if (wcscmp(step, L"close") == 0)
        return !PostMessageW(window, WM_CLOSE, 0, 0);
    if (wcscmp(step, L"cancel") == 0) {
        HWND dialog = window;
        EnumWindows(findDialog, (LPARAM)&dialog);
        return dialog == window || !PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
    }
    if (wcscmp(step, L"minimize") == 0) {
        ShowWindow(window, SW_MINIMIZE);
        return 0;
    }
    if (wcscmp(step, L"shown") == 0)
        return !(IsWindowVisible(window) && !IsIconic(window));
    if (wcscmp(step, L"hwnd") == 0) {
        wprintf(L"%llu\n", (unsigned long long)(ULONG_PTR)window);
        return 0;
    }
    return 1;
}
