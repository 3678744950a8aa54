// Start-menu shortcuts read from their bytes, made here part by part as
// Windows and Wine's shell write them.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "product/launchers/ShellLink.hpp"

using namespace vt::product;

namespace {

using Bytes = std::vector<uint8_t>;

void put16(Bytes& out, uint32_t value)
{
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void put32(Bytes& out, uint32_t value)
{
    put16(out, value & 0xFFFF);
    put16(out, value >> 16);
}

void putUtf16(Bytes& out, const std::u16string& text)
{
    for (char16_t unit : text)
        put16(out, unit);
}

struct LinkParts {
    std::string localBasePath; // link-info, ANSI
    std::string commonPathSuffix;
    std::u16string localBasePathUnicode; // link-info, the longer header
    std::u16string name, relativePath, workingDirectory, arguments, iconLocation;
    std::u16string environmentTarget; // an environment-variable block
    int32_t iconIndex = 0;
    bool itemIdList = true;
};

Bytes link(const LinkParts& parts)
{
    uint32_t flags = 0x80; // unicode strings
    if (parts.itemIdList)
        flags |= 0x1;
    bool info = !parts.localBasePath.empty() || !parts.localBasePathUnicode.empty();
    if (info)
        flags |= 0x2;
    const std::pair<const std::u16string*, uint32_t> strings[] = {
        { &parts.name, 0x4 },      { &parts.relativePath, 0x8 }, { &parts.workingDirectory, 0x10 },
        { &parts.arguments, 0x20 }, { &parts.iconLocation, 0x40 },
    };
    for (const auto& [text, flag] : strings)
        if (!text->empty())
            flags |= flag;

    Bytes out;
    put32(out, 0x4C);
    const uint8_t classId[16] = { 0x01, 0x14, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46 };
    out.insert(out.end(), classId, classId + 16);
    put32(out, flags);
    out.resize(out.size() + 4 + 24 + 4, 0); // attributes, times, size
    put32(out, static_cast<uint32_t>(parts.iconIndex));
    out.resize(out.size() + 4 + 2 + 2 + 8, 0);
    if (parts.itemIdList) {
        // One item of 6 bytes and the terminating zero size.
        put16(out, 8);
        put16(out, 6);
        put32(out, 0x12345678);
        put16(out, 0);
    }
    if (info) {
        bool wide = !parts.localBasePathUnicode.empty();
        uint32_t headerSize = wide ? 0x24 : 0x1C;
        Bytes volume(16, 0); // a volume id with no label
        put32(volume, 0);
        volume[0] = 16;
        Bytes strings;
        uint32_t volumeAt = headerSize;
        uint32_t baseAt = volumeAt + static_cast<uint32_t>(volume.size());
        strings.insert(strings.end(), parts.localBasePath.begin(), parts.localBasePath.end());
        strings.push_back(0);
        uint32_t suffixAt = baseAt + static_cast<uint32_t>(strings.size());
        strings.insert(strings.end(), parts.commonPathSuffix.begin(), parts.commonPathSuffix.end());
        strings.push_back(0);
        uint32_t wideAt = baseAt + static_cast<uint32_t>(strings.size());
        if (wide) {
            putUtf16(strings, parts.localBasePathUnicode);
            put16(strings, 0);
        }
        uint32_t wideSuffixAt = baseAt + static_cast<uint32_t>(strings.size());
        if (wide)
            put16(strings, 0);
        Bytes block;
        put32(block, headerSize + static_cast<uint32_t>(volume.size() + strings.size()));
        put32(block, headerSize);
        put32(block, 1); // volume id and local base path
        put32(block, volumeAt);
        put32(block, baseAt);
        put32(block, 0); // no network link
        put32(block, suffixAt);
        if (wide) {
            put32(block, wideAt);
            put32(block, wideSuffixAt);
        }
        block.insert(block.end(), volume.begin(), volume.end());
        block.insert(block.end(), strings.begin(), strings.end());
        out.insert(out.end(), block.begin(), block.end());
    }
    for (const auto& [text, flag] : strings) {
        if (text->empty())
            continue;
        put16(out, static_cast<uint32_t>(text->size()));
        putUtf16(out, *text);
    }
    if (!parts.environmentTarget.empty()) {
        put32(out, 8 + 260 + 520);
        put32(out, 0xA0000001);
        Bytes ansi(260, 0), wide;
        putUtf16(wide, parts.environmentTarget);
        wide.resize(520, 0);
        out.insert(out.end(), ansi.begin(), ansi.end());
        out.insert(out.end(), wide.begin(), wide.end());
    }
    put32(out, 0); // the end of the extra data
    return out;
}

} // namespace

TEST(ShellLink, ReadsTheTargetAndTheStringsOfAnInstallersShortcut)
{
    LinkParts parts;
    parts.localBasePath = "C:\\Program Files\\";
    parts.commonPathSuffix = "Editor\\editor.exe";
    parts.name = u"Edits text";
    parts.workingDirectory = u"C:\\Program Files\\Editor";
    parts.arguments = u"/new \"a b\"";
    parts.iconLocation = u"C:\\Program Files\\Editor\\icons.dll";
    parts.iconIndex = -3;
    Bytes bytes = link(parts);
    ShellLink read = readShellLink(bytes);
    EXPECT_EQ(read.target, "C:\\Program Files\\Editor\\editor.exe");
    EXPECT_EQ(read.description, "Edits text");
    EXPECT_EQ(read.workingDirectory, "C:\\Program Files\\Editor");
    EXPECT_EQ(read.arguments, "/new \"a b\"");
    EXPECT_EQ(read.iconLocation, "C:\\Program Files\\Editor\\icons.dll");
    EXPECT_EQ(read.iconIndex, -3);
}

TEST(ShellLink, TakesTheTargetFromWhereverTheShortcutKeepsIt)
{
    LinkParts unicode;
    unicode.localBasePath = "C:\\PROGRA~1\\EDITOR~1.EXE";
    unicode.localBasePathUnicode = u"C:\\Programme\\\u00c9diteur \U0001F4DD.exe";
    EXPECT_EQ(readShellLink(link(unicode)).target, "C:\\Programme\\\xC3\x89" "diteur \xF0\x9F\x93\x9D.exe");

    LinkParts environment;
    environment.itemIdList = false;
    environment.environmentTarget = u"%ProgramFiles%\\Editor\\editor.exe";
    EXPECT_EQ(readShellLink(link(environment)).target, "%ProgramFiles%\\Editor\\editor.exe");

    LinkParts relative;
    relative.relativePath = u"..\\..\\Editor\\editor.exe";
    EXPECT_EQ(readShellLink(link(relative)).target, "..\\..\\Editor\\editor.exe");

    LinkParts nothing;
    EXPECT_EQ(readShellLink(link(nothing)).target, "");
}

TEST(ShellLink, RefusesWhatIsNoShortcutOrEndsInsideOne)
{
    LinkParts parts;
    parts.localBasePath = "C:\\editor.exe";
    parts.name = u"Editor";
    Bytes whole = link(parts);
    Bytes otherClass = whole;
    otherClass[4] ^= 0xFF;
    EXPECT_THROW(readShellLink(otherClass), ShellLinkError);
    EXPECT_THROW(readShellLink(Bytes { 'M', 'Z', 0x90, 0 }), ShellLinkError);
    // Cut anywhere before its strings end, it says where it ended.
    size_t wholeSize = whole.size() - 4; // the extra data's end may be missing
    for (size_t size = 0; size < wholeSize; ++size) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_THROW(readShellLink(cut), ShellLinkError) << size << " bytes";
    }
    EXPECT_EQ(readShellLink(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(wholeSize))).target,
              "C:\\editor.exe");
}

TEST(ShellLinkWriting, GivesBackWhatItWasGivenInAnyScript)
{
    ShellLink written;
    written.target = "C:\\Program Files\\Café\\café.exe";
    written.arguments = "--open \"a b\" 日本";
    written.workingDirectory = "C:\\Program Files\\Café";
    written.description = "Notes 🗒";
    written.iconLocation = "C:\\windows\\system32\\shell32.dll";
    written.iconIndex = -3;
    ShellLink read = readShellLink(writeShellLink(written));
    EXPECT_EQ(read.target, written.target);
    EXPECT_EQ(read.arguments, written.arguments);
    EXPECT_EQ(read.workingDirectory, written.workingDirectory);
    EXPECT_EQ(read.description, written.description);
    EXPECT_EQ(read.iconLocation, written.iconLocation);
    EXPECT_EQ(read.iconIndex, -3);

    // Only a target: no strings at all.
    ShellLink bare;
    bare.target = "C:\\windows\\system32\\notepad.exe";
    ShellLink back = readShellLink(writeShellLink(bare));
    EXPECT_EQ(back.target, bare.target);
    EXPECT_TRUE(back.description.empty() && back.arguments.empty() && back.iconLocation.empty());
    EXPECT_THROW(writeShellLink(ShellLink {}), ShellLinkError);
}
