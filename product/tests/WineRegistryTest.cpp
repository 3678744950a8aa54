// A Wine prefix's registry files as Wine's server writes them, and the
// document types a program registers there.
#include <gtest/gtest.h>

#include "product/launchers/WineRegistry.hpp"

using namespace vt::product;
using Strings = std::vector<std::string>;

namespace {

const char* const kMachine = R"(WINE REGISTRY Version 2
;; All keys relative to \\Machine

#arch=win64

[Software\\Classes\\.txt] 1795646789
#time=1dd7d2ecf788de0
@="txtfile"
"Content Type"="text/plain"

[Software\\Classes\\.LOG] 1795646789
@="txtfile"

[Software\\Classes\\.ini] 1795646789
@="inifile"

[Software\\Classes\\.bin] 1795646789
"Content Type"="application/octet-stream"

[Software\\Classes\\txtfile\\shell\\open\\command] 1795646789
#time=1dd7d2ecfac9612
@="\"C:\\windows\\system32\\notepad.exe\" \"%1\""

[Software\\Classes\\inifile\\shell\\open\\command] 1795646789
@=str(2):"%SystemRoot%\\system32\\NOTEPAD.EXE %1"

[Software\\Classes\\.sketch] 1795646789
@="Sketcher.Document"

[Software\\Classes\\Sketcher.Document\\shell\\open\\command] 1795646789
@="C:\\Program Files\\Sketcher\\sketch.exe /open \"%1\""
"Number"=dword:00000010
"Bytes"=hex:01,02,\
  03,04

[Software\\Wine\\Caf\xe9\\R\x00e9sum\x00e9] 1795646789
"Tab\tand\\back\"slash"="line\nnext\101\x1f4dd"
)";

// The user's own classes: .ini opens in their editor instead.
const char* const kUser = R"(WINE REGISTRY Version 2
;; All keys relative to \\User\\S-1-5-21-0-0-0-1000

[Software\\Classes\\.ini] 1795646790
@="Sketcher.Document"
)";

} // namespace

TEST(WineRegistry, ReadsKeysAndStringValuesAsTheServerEscapesThem)
{
    RegistryFile machine = RegistryFile::parse(kMachine);
    EXPECT_EQ(machine.value("Software\\Classes\\.txt"), "txtfile");
    EXPECT_EQ(machine.value("software\\classes\\.TXT", "content type"), "text/plain");
    EXPECT_EQ(machine.value("Software\\Classes\\inifile\\shell\\open\\command"),
              "%SystemRoot%\\system32\\NOTEPAD.EXE %1");
    EXPECT_EQ(machine.value("Software\\Classes\\txtfile\\shell\\open\\command"),
              "\"C:\\windows\\system32\\notepad.exe\" \"%1\"");
    EXPECT_EQ(machine.value("Software\\Classes\\Sketcher.Document\\shell\\open\\command", "Number"), std::nullopt);
    EXPECT_EQ(machine.value("Software\\Classes\\.bin"), std::nullopt);
    EXPECT_EQ(machine.value("Software\\Classes\\.none"), std::nullopt);
    // Non-ASCII names, C escapes, octal and \x escapes of four digits at most.
    EXPECT_EQ(machine.value("Software\\Wine\\Caf\xC3\xA9\\R\xC3\xA9sum\xC3\xA9", "Tab\tand\\back\"slash"),
              "line\nnextA\xE1\xBD\x8D" "d");
    EXPECT_EQ(machine.subkeys("Software\\Classes"),
              (Strings { ".bin", ".ini", ".LOG", ".sketch", ".txt", "inifile", "Sketcher.Document", "txtfile" }));

    EXPECT_THROW(RegistryFile::parse("REGEDIT4\n[HKEY_LOCAL_MACHINE]\n"), RegistryError);
}

TEST(WineRegistry, FindsTheExtensionsAProgramOpensWithTheUsersOwnClassesFirst)
{
    RegistryFile machine = RegistryFile::parse(kMachine);
    RegistryFile user = RegistryFile::parse(kUser);
    EXPECT_EQ(extensionsOpenedBy(machine, user, "C:\\windows\\system32\\notepad.exe"), (Strings { ".log", ".txt" }));
    EXPECT_EQ(extensionsOpenedBy(machine, RegistryFile::parse("WINE REGISTRY Version 2\n"),
                                 "c:\\WINDOWS\\system32\\Notepad.exe"),
              (Strings { ".ini", ".log", ".txt" }));
    EXPECT_EQ(extensionsOpenedBy(machine, user, "%ProgramFiles%\\Sketcher\\sketch.exe"), (Strings { ".ini", ".sketch" }));
    EXPECT_EQ(extensionsOpenedBy(machine, user, "C:\\windows\\regedit.exe"), Strings {});
}

TEST(WineRegistry, TellsTheProgramOfAnOpenCommand)
{
    EXPECT_EQ(programOfCommand("\"C:\\Program Files\\A B\\a.exe\" \"%1\""), "C:\\Program Files\\A B\\a.exe");
    EXPECT_EQ(programOfCommand("  C:\\Program Files\\A B\\a.EXE /open %1"), "C:\\Program Files\\A B\\a.EXE");
    EXPECT_EQ(programOfCommand("notepad %1"), "notepad");
    EXPECT_EQ(programOfCommand("\"unterminated"), "unterminated");
    EXPECT_EQ(programOfCommand(""), "");
}
