/*
 * scratchpad-setup.exe: installs scratchpad.exe into a bottle the way a
 * user's own installer puts a program there, so the demo has a program that
 * arrived as programs do. Not part of the product.
 *
 *   scratchpad-setup <scratchpad.exe>
 *
 * The program may be named by a Windows path or by a unix path, as the
 * launcher's tools hand one over. It is copied to
 *   %ProgramFiles%\Scratchpad\scratchpad.exe
 * (the folder is made when missing), and, for every user of the bottle,
 *   the document type .md in HKLM\Software\Classes:
 *     .md                                    (default) Scratchpad.Document
 *     Scratchpad.Document                    (default) Scratchpad document
 *     Scratchpad.Document\DefaultIcon        (default) "<program>",0
 *     Scratchpad.Document\shell\open\command (default) "<program>" "%1"
 *   and the Start-menu shortcut
 *     <all users' Programs>\Scratchpad\Scratchpad.lnk
 *   to the program, starting in its folder, described as "Write down what
 *   comes to mind", with the program's first icon.
 * Installing again over an installed copy replaces it.
 *
 *   scratchpad-setup /uninstall
 *
 * removes the shortcut, then its folder when nothing else is in it, the two
 * class keys (.md only while it still names Scratchpad.Document, since
 * another program may have taken the type over since), and the program, then
 * its folder when nothing else is in it. What is already gone is no error.
 *
 * Exit status 0 when everything was done, 1 otherwise, with a line on
 * standard error for each step that failed.
 */
#ifndef UNICODE
#define UNICODE
#endif
#define COBJMACROS
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <objbase.h>
#include <objidl.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

static const wchar_t extensionKey[] = L"Software\\Classes\\.md";
static const wchar_t typeName[] = L"Scratchpad.Document";
static const wchar_t typeKey[] = L"Software\\Classes\\Scratchpad.Document";
static const wchar_t typeIconKey[] = L"Software\\Classes\\Scratchpad.Document\\DefaultIcon";
static const wchar_t typeOpenKey[] = L"Software\\Classes\\Scratchpad.Document\\shell\\open\\command";
static const wchar_t description[] = L"Write down what comes to mind";

/* Where the pieces go, all made from the bottle's own folders. */
struct places {
    wchar_t programFolder[MAX_PATH];
    wchar_t program[MAX_PATH];
    wchar_t menuFolder[MAX_PATH];
    wchar_t shortcut[MAX_PATH];
};

/* A line on standard error; returns FALSE so a step can end with it. */
static BOOL failed(const wchar_t* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fwprintf(stderr, L"scratchpad-setup: ");
    vfwprintf(stderr, format, arguments);
    fwprintf(stderr, L"\n");
    va_end(arguments);
    return FALSE;
}

static BOOL joinPath(wchar_t* out, const wchar_t* folder, const wchar_t* name)
{
    int length = _snwprintf(out, MAX_PATH, L"%ls\\%ls", folder, name);
    return length >= 0 && length < MAX_PATH;
}

static BOOL findPlaces(struct places* places)
{
    wchar_t programFiles[MAX_PATH], programs[MAX_PATH];
    HRESULT result = SHGetFolderPathW(NULL, CSIDL_PROGRAM_FILES, NULL, SHGFP_TYPE_CURRENT, programFiles);
    if (FAILED(result))
        return failed(L"cannot find the Program Files folder (0x%08lx)", (unsigned long)result);
    result = SHGetFolderPathW(NULL, CSIDL_COMMON_PROGRAMS | CSIDL_FLAG_CREATE, NULL, SHGFP_TYPE_CURRENT, programs);
    if (FAILED(result))
        return failed(L"cannot find the Start menu's Programs folder (0x%08lx)", (unsigned long)result);
    if (!joinPath(places->programFolder, programFiles, L"Scratchpad")
        || !joinPath(places->program, places->programFolder, L"scratchpad.exe")
        || !joinPath(places->menuFolder, programs, L"Scratchpad")
        || !joinPath(places->shortcut, places->menuFolder, L"Scratchpad.lnk"))
        return failed(L"the bottle's folders have too long a path");
    return TRUE;
}

/* A unix path becomes the Windows path of the same file, by Wine's own
 * conversion; anything else is taken as a Windows path. */
static BOOL sourcePath(const wchar_t* argument, wchar_t* out)
{
    if (argument[0] != L'/') {
        DWORD length = GetFullPathNameW(argument, MAX_PATH, out, NULL);
        return (length > 0 && length < MAX_PATH) || failed(L"cannot resolve %ls", argument);
    }
    typedef WCHAR* (CDECL * ToDosName)(LPCSTR);
    ToDosName toDosName = (ToDosName)(void (*)(void))GetProcAddress(GetModuleHandleW(L"kernel32.dll"),
                                                                     "wine_get_dos_file_name");
    if (!toDosName)
        return failed(L"cannot take the unix path %ls outside Wine", argument);
    int length = WideCharToMultiByte(CP_UTF8, 0, argument, -1, NULL, 0, NULL, NULL);
    char* unixPath = length > 0 ? malloc((size_t)length) : NULL;
    WCHAR* dosPath = NULL;
    if (unixPath && WideCharToMultiByte(CP_UTF8, 0, argument, -1, unixPath, length, NULL, NULL))
        dosPath = toDosName(unixPath);
    free(unixPath);
    BOOL fits = dosPath && wcslen(dosPath) < MAX_PATH;
    if (fits)
        wcscpy(out, dosPath);
    if (dosPath)
        HeapFree(GetProcessHeap(), 0, dosPath);
    return fits || failed(L"cannot convert the unix path %ls", argument);
}

static BOOL makeFolder(const wchar_t* folder)
{
    if (CreateDirectoryW(folder, NULL) || GetLastError() == ERROR_ALREADY_EXISTS)
        return TRUE;
    return failed(L"cannot create %ls (error %lu)", folder, GetLastError());
}

/* The key's default value, made with the key when missing. */
static BOOL setDefault(const wchar_t* key, const wchar_t* value)
{
    HKEY handle;
    LONG result = RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, NULL, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, NULL,
                                  &handle, NULL);
    if (result != ERROR_SUCCESS)
        return failed(L"cannot create HKLM\\%ls (error %ld)", key, result);
    DWORD bytes = (DWORD)((wcslen(value) + 1) * sizeof *value);
    result = RegSetValueExW(handle, NULL, 0, REG_SZ, (const BYTE*)value, bytes);
    RegCloseKey(handle);
    if (result != ERROR_SUCCESS)
        return failed(L"cannot set HKLM\\%ls (error %ld)", key, result);
    return TRUE;
}

static BOOL registerType(const struct places* places)
{
    wchar_t icon[MAX_PATH + 8], command[MAX_PATH + 8];
    _snwprintf(icon, sizeof icon / sizeof *icon, L"\"%ls\",0", places->program);
    icon[sizeof icon / sizeof *icon - 1] = 0;
    _snwprintf(command, sizeof command / sizeof *command, L"\"%ls\" \"%%1\"", places->program);
    command[sizeof command / sizeof *command - 1] = 0;
    return setDefault(extensionKey, typeName) && setDefault(typeKey, L"Scratchpad document")
           && setDefault(typeIconKey, icon) && setDefault(typeOpenKey, command);
}

static BOOL makeShortcut(const struct places* places)
{
    if (!makeFolder(places->menuFolder))
        return FALSE;
    HRESULT result = CoInitializeEx(NULL, COINIT_APARTMENTTHREADED);
    if (FAILED(result))
        return failed(L"cannot start COM (0x%08lx)", (unsigned long)result);
    IShellLinkW* link = NULL;
    IPersistFile* file = NULL;
    const wchar_t* step = L"make a shell link";
    result = CoCreateInstance(&CLSID_ShellLink, NULL, CLSCTX_INPROC_SERVER, &IID_IShellLinkW, (void**)&link);
    if (SUCCEEDED(result)) {
        step = L"set the shortcut's target";
        result = IShellLinkW_SetPath(link, places->program);
    }
    if (SUCCEEDED(result)) {
        step = L"set the shortcut's working folder";
        result = IShellLinkW_SetWorkingDirectory(link, places->programFolder);
    }
    if (SUCCEEDED(result)) {
        step = L"set the shortcut's description";
        result = IShellLinkW_SetDescription(link, description);
    }
    if (SUCCEEDED(result)) {
        step = L"set the shortcut's icon";
        result = IShellLinkW_SetIconLocation(link, places->program, 0);
    }
    if (SUCCEEDED(result)) {
        step = L"save the shortcut";
        result = IShellLinkW_QueryInterface(link, &IID_IPersistFile, (void**)&file);
    }
    if (SUCCEEDED(result))
        result = IPersistFile_Save(file, places->shortcut, TRUE);
    if (file)
        IPersistFile_Release(file);
    if (link)
        IShellLinkW_Release(link);
    CoUninitialize();
    if (FAILED(result))
        return failed(L"cannot %ls %ls (0x%08lx)", step, places->shortcut, (unsigned long)result);
    return TRUE;
}

static BOOL install(const wchar_t* argument)
{
    struct places places;
    wchar_t source[MAX_PATH];
    if (!findPlaces(&places) || !sourcePath(argument, source))
        return FALSE;
    /* Nothing is made in the bottle for a program that is not there. */
    DWORD attributes = GetFileAttributesW(source);
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return failed(L"cannot find the program %ls", source);
    if (!makeFolder(places.programFolder))
        return FALSE;
    if (!CopyFileW(source, places.program, FALSE))
        return failed(L"cannot copy %ls to %ls (error %lu)", source, places.program, GetLastError());
    return registerType(&places) && makeShortcut(&places);
}

static BOOL isGone(DWORD error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

static BOOL removeFile(const wchar_t* path)
{
    if (DeleteFileW(path) || isGone(GetLastError()))
        return TRUE;
    return failed(L"cannot remove %ls (error %lu)", path, GetLastError());
}

/* A folder the user or another program has put something into stays. */
static BOOL removeFolder(const wchar_t* path)
{
    if (RemoveDirectoryW(path) || isGone(GetLastError()) || GetLastError() == ERROR_DIR_NOT_EMPTY)
        return TRUE;
    return failed(L"cannot remove %ls (error %lu)", path, GetLastError());
}

static BOOL removeKey(const wchar_t* path)
{
    LONG result = RegDeleteTreeW(HKEY_LOCAL_MACHINE, path);
    if (result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND)
        return TRUE;
    return failed(L"cannot remove HKLM\\%ls (error %ld)", path, result);
}

static BOOL extensionIsOurs(void)
{
    wchar_t value[64];
    DWORD bytes = sizeof value;
    LONG result = RegGetValueW(HKEY_LOCAL_MACHINE, extensionKey, NULL, RRF_RT_REG_SZ, NULL, value, &bytes);
    return result == ERROR_SUCCESS && wcscmp(value, typeName) == 0;
}

/* Every step is tried, so one piece that cannot go leaves no more behind
 * than itself. */
static BOOL uninstall(void)
{
    struct places places;
    if (!findPlaces(&places))
        return FALSE;
    BOOL done = removeFile(places.shortcut);
    done = removeFolder(places.menuFolder) && done;
    if (extensionIsOurs())
        done = removeKey(extensionKey) && done;
    done = removeKey(typeKey) && done;
    done = removeFile(places.program) && done;
    done = removeFolder(places.programFolder) && done;
    return done;
}

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2) {
        failed(L"usage: scratchpad-setup <scratchpad.exe> | /uninstall");
        return 1;
    }
    BOOL done = _wcsicmp(argv[1], L"/uninstall") == 0 ? uninstall() : install(argv[1]);
    return done ? 0 : 1;
}
