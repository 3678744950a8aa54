/*
 * scratchpad.exe: a tiny Windows program that holds the user's text, for the
 * product over Debian's Wine.
 *
 *   scratchpad [document]
 *
 * One window, "Scratchpad - <file name>" ("Untitled" without a document),
 * holding the document's plain text in an edit box. The document may be named
 * by a Windows path or, as the launcher's tools hand it over, by a unix path.
 * Text typed and not yet saved is the user's unsaved work: the title then
 * starts with "*". Ctrl+S or File > Save writes it back to the document, or to
 * C:\users\Public\scratchpad.txt when there is none.
 *
 * Ending it:
 *   WM_QUERYENDSESSION  refused (FALSE) while there is unsaved text, which
 *                       stays as it is; the window comes forward so the user
 *                       sees what held the quit up. Agreed (TRUE) otherwise.
 *   WM_ENDSESSION(TRUE) the program ends.
 *   WM_CLOSE            the program ends; with unsaved text it first asks
 *                       whether to save it (Yes saves and ends, No drops the
 *                       text and ends, Cancel keeps the program and its text).
 *
 * It shows an icon in the tray while it runs. Minimized, it lives in that
 * icon alone: the window is hidden, as tray programs do; a click on the icon
 * brings the window forward again.
 */
#ifndef UNICODE
#define UNICODE
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <shellapi.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

/* Menu and accelerator commands. */
enum { ID_SAVE = 100, ID_EXIT = 101 };
enum { ID_EDIT = 1, TRAY_ICON_ID = 1, WM_TRAY_CALLBACK = WM_APP + 1 };

static const wchar_t untitledPath[] = L"C:\\users\\Public\\scratchpad.txt";

static HWND mainWindow, editBox;
static wchar_t documentPath[MAX_PATH];
static BOOL hasDocument;
static BOOL unsaved;
/* Changes made by the program itself (loading) are not the user's work. */
static BOOL loading;
/* How the document ended its lines, kept when it is written back. */
static BOOL unixLineEnds;
static UINT taskbarCreated;

static void updateTitle(void)
{
    const wchar_t* name = L"Untitled";
    if (hasDocument) {
        const wchar_t* slash = wcsrchr(documentPath, L'\\');
        name = slash ? slash + 1 : documentPath;
    }
    wchar_t title[MAX_PATH + 32];
    _snwprintf(title, sizeof title / sizeof *title, L"%lsScratchpad - %ls", unsaved ? L"*" : L"", name);
    title[sizeof title / sizeof *title - 1] = 0;
    SetWindowTextW(mainWindow, title);
}

static void setUnsaved(BOOL value)
{
    if (unsaved == value)
        return;
    unsaved = value;
    updateTitle();
}

/* A unix path as the launcher's tools pass it becomes the Windows path of the
 * same file, with Wine's own conversion when there is one. */
static void resolveDocumentPath(const wchar_t* argument)
{
    wcsncpy(documentPath, argument, MAX_PATH - 1);
    documentPath[MAX_PATH - 1] = 0;
    if (argument[0] != L'/')
        return;
    typedef WCHAR* (CDECL * ToDosName)(LPCSTR);
    ToDosName toDosName = (ToDosName)(void (*)(void))GetProcAddress(GetModuleHandleW(L"kernel32.dll"),
                                                                     "wine_get_dos_file_name");
    int length = WideCharToMultiByte(CP_UTF8, 0, argument, -1, NULL, 0, NULL, NULL);
    char* unixPath = length > 0 ? malloc((size_t)length) : NULL;
    if (toDosName && unixPath && WideCharToMultiByte(CP_UTF8, 0, argument, -1, unixPath, length, NULL, NULL)) {
        WCHAR* dosPath = toDosName(unixPath);
        if (dosPath) {
            wcsncpy(documentPath, dosPath, MAX_PATH - 1);
            documentPath[MAX_PATH - 1] = 0;
            HeapFree(GetProcessHeap(), 0, dosPath);
        }
    }
    free(unixPath);
}

/* Reads the document as text: UTF-8 (with or without its mark) when it is
 * valid UTF-8, the ANSI code page otherwise. Lines end with CR LF in the edit
 * box whatever the file used. */
static void loadDocument(void)
{
    HANDLE file = CreateFileW(documentPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE)
        return; /* A new document: it is made on the first save. */
    DWORD size = GetFileSize(file, NULL);
    char* bytes = size != INVALID_FILE_SIZE ? malloc((size_t)size + 1) : NULL;
    DWORD got = 0;
    if (!bytes || !ReadFile(file, bytes, size, &got, NULL)) {
        free(bytes);
        CloseHandle(file);
        return;
    }
    CloseHandle(file);
    const char* text = bytes;
    int length = (int)got;
    if (length >= 3 && memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
        text += 3;
        length -= 3;
    }
    UINT codePage = CP_UTF8;
    int wideLength = MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, length, NULL, 0);
    if (length && !wideLength) {
        codePage = CP_ACP;
        wideLength = MultiByteToWideChar(codePage, 0, text, length, NULL, 0);
    }
    wchar_t* wide = malloc(((size_t)wideLength + 1) * sizeof *wide);
    if (wide) {
        MultiByteToWideChar(codePage, 0, text, length, wide, wideLength);
        BOOL sawLoneLineFeed = FALSE;
        size_t out = 0;
        /* Room for a CR before every LF. */
        wchar_t* shown = malloc(((size_t)wideLength * 2 + 1) * sizeof *shown);
        for (int i = 0; shown && i < wideLength; i++) {
            if (wide[i] == L'\n' && (i == 0 || wide[i - 1] != L'\r')) {
                shown[out++] = L'\r';
                sawLoneLineFeed = TRUE;
            }
            shown[out++] = wide[i];
        }
        if (shown) {
            shown[out] = 0;
            unixLineEnds = sawLoneLineFeed;
            loading = TRUE;
            SetWindowTextW(editBox, shown);
            loading = FALSE;
        }
        free(shown);
        free(wide);
    }
    free(bytes);
}

/* Writes the text as UTF-8, with the document's own line ends. */
static BOOL saveDocument(void)
{
    const wchar_t* path = hasDocument ? documentPath : untitledPath;
    int length = GetWindowTextLengthW(editBox);
    wchar_t* wide = malloc(((size_t)length + 1) * sizeof *wide);
    if (!wide)
        return FALSE;
    GetWindowTextW(editBox, wide, length + 1);
    if (unixLineEnds) {
        wchar_t* out = wide;
        for (const wchar_t* in = wide; *in; in++)
            if (!(in[0] == L'\r' && in[1] == L'\n'))
                *out++ = *in;
        *out = 0;
    }
    int byteLength = WideCharToMultiByte(CP_UTF8, 0, wide, -1, NULL, 0, NULL, NULL);
    char* bytes = byteLength > 0 ? malloc((size_t)byteLength) : NULL;
    BOOL saved = FALSE;
    if (bytes && WideCharToMultiByte(CP_UTF8, 0, wide, -1, bytes, byteLength, NULL, NULL)) {
        HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
        if (file != INVALID_HANDLE_VALUE) {
            DWORD written = 0;
            DWORD toWrite = (DWORD)byteLength - 1;
            saved = WriteFile(file, bytes, toWrite, &written, NULL) && written == toWrite;
            saved = CloseHandle(file) && saved;
        }
    }
    free(bytes);
    free(wide);
    if (saved)
        setUnsaved(FALSE);
    else
        MessageBoxW(mainWindow, L"The text could not be saved.", L"Scratchpad", MB_OK | MB_ICONERROR);
    return saved;
}

static void bringForward(void)
{
    ShowWindow(mainWindow, IsIconic(mainWindow) ? SW_RESTORE : SW_SHOW);
    SetForegroundWindow(mainWindow);
    SetFocus(editBox);
}

static void trayIcon(DWORD operation)
{
    NOTIFYICONDATAW icon;
    memset(&icon, 0, sizeof icon);
    icon.cbSize = sizeof icon;
    icon.hWnd = mainWindow;
    icon.uID = TRAY_ICON_ID;
    icon.uFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
    icon.uCallbackMessage = WM_TRAY_CALLBACK;
    icon.hIcon = LoadIconW(NULL, (LPCWSTR)IDI_APPLICATION);
    wcscpy(icon.szTip, L"Scratchpad");
    Shell_NotifyIconW(operation, &icon);
}

static LRESULT CALLBACK windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case WM_CREATE:
        editBox = CreateWindowExW(WS_EX_CLIENTEDGE, L"EDIT", L"",
                                  WS_CHILD | WS_VISIBLE | WS_VSCROLL | ES_MULTILINE | ES_AUTOVSCROLL | ES_WANTRETURN,
                                  0, 0, 0, 0, window, (HMENU)(INT_PTR)ID_EDIT, GetModuleHandleW(NULL), NULL);
        SendMessageW(editBox, WM_SETFONT, (WPARAM)GetStockObject(DEFAULT_GUI_FONT), TRUE);
        /* Much more than the default 32 KiB of text. */
        SendMessageW(editBox, EM_SETLIMITTEXT, 0, 0);
        return 0;
    case WM_SIZE:
        if (wParam == SIZE_MINIMIZED)
            ShowWindow(window, SW_HIDE);
        else
            MoveWindow(editBox, 0, 0, LOWORD(lParam), HIWORD(lParam), TRUE);
        return 0;
    case WM_SETFOCUS:
        SetFocus(editBox);
        return 0;
    case WM_COMMAND:
        if (LOWORD(wParam) == ID_EDIT && HIWORD(wParam) == EN_CHANGE && !loading)
            setUnsaved(TRUE);
        else if (LOWORD(wParam) == ID_SAVE)
            saveDocument();
        else if (LOWORD(wParam) == ID_EXIT)
            PostMessageW(window, WM_CLOSE, 0, 0);
        return 0;
    case WM_QUERYENDSESSION:
        if (unsaved) {
            bringForward();
            FlashWindow(window, TRUE);
            return FALSE;
        }
        return TRUE;
    case WM_ENDSESSION:
        if (wParam)
            DestroyWindow(window);
        return 0;
    case WM_CLOSE:
        if (unsaved) {
            int choice = MessageBoxW(window, L"Save the changes to the text?", L"Scratchpad",
                                     MB_YESNOCANCEL | MB_ICONQUESTION);
            if (choice == IDCANCEL || (choice == IDYES && !saveDocument()))
                return 0;
        }
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        trayIcon(NIM_DELETE);
        PostQuitMessage(0);
        return 0;
    case WM_TRAY_CALLBACK:
        if (LOWORD(lParam) == WM_LBUTTONUP || LOWORD(lParam) == WM_LBUTTONDBLCLK)
            bringForward();
        return 0;
    default:
        /* A tray that starts again has forgotten our icon. */
        if (taskbarCreated && message == taskbarCreated) {
            trayIcon(NIM_ADD);
            return 0;
        }
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE previous, PWSTR commandLine, int show)
{
    (void)previous;
    (void)commandLine;
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (argv && argc > 1) {
        resolveDocumentPath(argv[1]);
        hasDocument = TRUE;
    }
    taskbarCreated = RegisterWindowMessageW(L"TaskbarCreated");

    WNDCLASSEXW windowClass;
    memset(&windowClass, 0, sizeof windowClass);
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = windowProcedure;
    windowClass.hInstance = instance;
    /* Its own picture (scratchpad.rc): the window shows, in the desktop's
     * task list, the icon its launcher shows. */
    windowClass.hIcon = LoadIconW(instance, MAKEINTRESOURCEW(1));
    windowClass.hCursor = LoadCursorW(NULL, (LPCWSTR)IDC_ARROW);
    windowClass.hbrBackground = (HBRUSH)(COLOR_WINDOW + 1);
    windowClass.lpszClassName = L"VTScratchpad";
    if (!RegisterClassExW(&windowClass))
        return 1;

    HMENU fileMenu = CreatePopupMenu();
    AppendMenuW(fileMenu, MF_STRING, ID_SAVE, L"&Save\tCtrl+S");
    AppendMenuW(fileMenu, MF_SEPARATOR, 0, NULL);
    AppendMenuW(fileMenu, MF_STRING, ID_EXIT, L"E&xit");
    HMENU menuBar = CreateMenu();
    AppendMenuW(menuBar, MF_POPUP, (UINT_PTR)fileMenu, L"&File");

    ACCEL save = { FCONTROL | FVIRTKEY, 'S', ID_SAVE };
    HACCEL accelerators = CreateAcceleratorTableW(&save, 1);

    mainWindow = CreateWindowExW(0, windowClass.lpszClassName, L"Scratchpad", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                                 CW_USEDEFAULT, 640, 480, NULL, menuBar, instance, NULL);
    if (!mainWindow)
        return 1;
    if (hasDocument)
        loadDocument();
    updateTitle();
    trayIcon(NIM_ADD);
    ShowWindow(mainWindow, show);
    UpdateWindow(mainWindow);
    LocalFree(argv);

    MSG message;
    while (GetMessageW(&message, NULL, 0, 0) > 0) {
        if (!TranslateAcceleratorW(mainWindow, accelerators, &message)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
    DestroyAcceleratorTable(accelerators);
    return (int)message.wParam;
}
