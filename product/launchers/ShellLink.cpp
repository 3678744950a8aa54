#include "product/launchers/ShellLink.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include "product/common/AsciiText.hpp"
namespace vt::product {

namespace {
    constexpr uint32_t kHeaderSize = 0x4C;
    constexpr std::array<uint8_t, 16> kLinkClassId { 0x01, 0x14, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                     0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 };

    enum LinkFlags : uint32_t {
        HasLinkTargetIdList = 0x1,
        HasLinkInfo = 0x2,
        HasName = 0x4,
        HasRelativePath = 0x8,
        HasWorkingDirectory = 0x10,
        HasArguments = 0x20,
        HasIconLocation = 0x40,
        IsUnicode = 0x80,
    };
    constexpr uint32_t kVolumeIdAndLocalBasePath = 0x1;
    constexpr uint32_t kEnvironmentVariableBlock = 0xA0000001;
    constexpr size_t kEnvironmentAnsiSize = 260;
    constexpr size_t kEnvironmentUnicodeSize = 520;

    // UTF-16LE code units to UTF-8; a lone surrogate becomes U+FFFD.
    std::string fromUtf16(std::span<const uint8_t> bytes)
    {
        std::string out;
        for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
            uint32_t unit = bytes[i] | (bytes[i + 1] << 8);
            if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < bytes.size()) {
                uint32_t low = bytes[i + 2] | (bytes[i + 3] << 8);
                if (low >= 0xDC00 && low < 0xE000) {
                    appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
                    i += 2;
                    continue;
                }
            }
            appendUtf8(out, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
        }
        return out;
    }

    // The ANSI code page's bytes, read as Latin-1: exact for ASCII, which
    // is what paths of installed programs are in practice.
    std::string fromAnsi(std::span<const uint8_t> bytes)
    {
        std::string out;
        for (uint8_t byte : bytes)
            appendUtf8(out, byte);
        return out;
    }

    class Reader {
    public:
        explicit Reader(std::span<const uint8_t> bytes) : m_bytes(bytes) {}

        size_t position() const { return m_at; }
        size_t left() const { return m_bytes.size() - m_at; }

        std::span<const uint8_t> take(size_t size, const char* part)
        {
            if (size > left())
                throw ShellLinkError(std::string("the shortcut ends inside its ") + part);
            auto taken = m_bytes.subspan(m_at, size);
            m_at += size;
            return taken;
        }
        uint16_t u16(const char* part)
        {
            auto b = take(2, part);
            return static_cast<uint16_t>(b[0] | (b[1] << 8));
        }
        uint32_t u32(const char* part)
        {
            auto b = take(4, part);
            return static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8)
                | (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
        }

    private:
        std::span<const uint8_t> m_bytes;
        size_t m_at = 0;
    };

    uint32_t u32At(std::span<const uint8_t> bytes, size_t at)
    {
        if (at + 4 > bytes.size())
            return 0;
        return static_cast<uint32_t>(bytes[at]) | (static_cast<uint32_t>(bytes[at + 1]) << 8)
            | (static_cast<uint32_t>(bytes[at + 2]) << 16) | (static_cast<uint32_t>(bytes[at + 3]) << 24);
    }

    // A NUL-terminated byte string at `offset` in `block`; empty when the
    // offset lies outside it.
    std::span<const uint8_t> cString(std::span<const uint8_t> block, size_t offset)
    {
        if (offset >= block.size())
            return {};
        size_t end = offset;
        while (end < block.size() && block[end] != 0)
            ++end;
        return block.subspan(offset, end - offset);
    }

    // The same, of UTF-16 code units.
    std::span<const uint8_t> wideString(std::span<const uint8_t> block, size_t offset)
    {
        if (offset + 1 >= block.size())
            return {};
        size_t end = offset;
        while (end + 1 < block.size() && (block[end] != 0 || block[end + 1] != 0))
            end += 2;
        return block.subspan(offset, end - offset);
    }

    // The local path the link-info block gives, if any.
    std::string linkInfoTarget(std::span<const uint8_t> info)
    {
        uint32_t headerSize = u32At(info, 4);
        uint32_t flags = u32At(info, 8);
        if (!(flags & kVolumeIdAndLocalBasePath))
            return {};
        // An offset of 0 means the string is not there.
        auto ansi = [&](size_t at) { return u32At(info, at) ? fromAnsi(cString(info, u32At(info, at))) : ""; };
        auto wide = [&](size_t at) { return u32At(info, at) ? fromUtf16(wideString(info, u32At(info, at))) : ""; };
        std::string base, suffix;
        if (headerSize >= 0x24) {
            base = wide(0x1C);
            suffix = wide(0x20);
        }
        if (base.empty()) {
            base = ansi(0x10);
            suffix = ansi(0x18);
        }
        if (!suffix.empty() && !base.empty() && base.back() != '\\')
            base += '\\';
        return base + suffix;
    }
} // namespace

namespace {
    // UTF-8 to UTF-16 code units; a byte that starts no valid sequence is
    // taken as Latin-1.
    std::u16string toUtf16(const std::string& text)
    {
        std::u16string out;
        for (size_t i = 0; i < text.size();) {
            auto byte = static_cast<uint8_t>(text[i]);
            size_t length = byte < 0x80 ? 1 : (byte >> 5) == 0x6 ? 2 : (byte >> 4) == 0xE ? 3 : (byte >> 3) == 0x1E ? 4 : 0;
            uint32_t codePoint = length == 1 ? byte : length == 2 ? byte & 0x1F : length == 3 ? byte & 0x0F : byte & 0x07;
            bool valid = length > 0 && i + length <= text.size();
            for (size_t k = 1; valid && k < length; ++k) {
                auto next = static_cast<uint8_t>(text[i + k]);
                valid = (next & 0xC0) == 0x80;
                codePoint = (codePoint << 6) | (next & 0x3F);
            }
            if (!valid) {
                codePoint = byte;
                length = 1;
            }
            if (codePoint >= 0x10000) {
                codePoint -= 0x10000;
                out += static_cast<char16_t>(0xD800 + (codePoint >> 10));
                out += static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF));
            } else {
                out += static_cast<char16_t>(codePoint);
            }
            i += length;
        }
        return out;
    }

    // The ANSI code page as Latin-1 (the reader's reading): other
    // characters become '?'.
    std::string toAnsi(const std::u16string& text)
    {
        std::string out;
        for (char16_t unit : text)
            out += unit < 0x100 ? static_cast<char>(unit) : '?';
        return out;
    }

    class Writer {
    public:
        void u16(uint32_t value)
        {
            bytes.push_back(static_cast<uint8_t>(value));
            bytes.push_back(static_cast<uint8_t>(value >> 8));
        }
        void u32(uint32_t value)
        {
            u16(value & 0xFFFF);
            u16(value >> 16);
        }
        void zeros(size_t count) { bytes.resize(bytes.size() + count, 0); }
        void ansiz(const std::string& text)
        {
            bytes.insert(bytes.end(), text.begin(), text.end());
            bytes.push_back(0);
        }
        void wide(const std::u16string& text)
        {
            for (char16_t unit : text)
                u16(unit);
        }
        // A counted string of the string-data part.
        void counted(const std::u16string& text)
        {
            if (text.size() > 0xFFFF)
                throw ShellLinkError("a shortcut's string holds at most 65535 characters");
            u16(static_cast<uint32_t>(text.size()));
            wide(text);
        }

        std::vector<uint8_t> bytes;
    };
} // namespace

std::vector<uint8_t> writeShellLink(const ShellLink& link)
{
    if (link.target.empty())
        throw ShellLinkError("a shortcut needs a target");
    const std::pair<const std::string*, uint32_t> strings[] = {
        { &link.description, HasName },
        { &link.workingDirectory, HasWorkingDirectory },
        { &link.arguments, HasArguments },
        { &link.iconLocation, HasIconLocation },
    };
    uint32_t flags = HasLinkInfo | IsUnicode;
    for (const auto& [text, flag] : strings)
        if (!text->empty())
            flags |= flag;

    Writer out;
    out.u32(kHeaderSize);
    out.bytes.insert(out.bytes.end(), kLinkClassId.begin(), kLinkClassId.end());
    out.u32(flags);
    out.zeros(4 + 8 + 8 + 8 + 4); // attributes, three times, size
    out.u32(static_cast<uint32_t>(link.iconIndex));
    out.u32(1); // shown normally
    out.zeros(2 + 2 + 4 + 4); // hot key, reserved

    // The link-info block: its 0x24-byte header, a volume id (a fixed
    // drive, no label), the ANSI base path and an empty common suffix, then
    // the UTF-16 base path and suffix.
    std::u16string target = toUtf16(link.target);
    std::string ansiTarget = toAnsi(target);
    const uint32_t headerSize = 0x24;
    const uint32_t volumeSize = 0x11;
    uint32_t ansiPath = headerSize + volumeSize;
    uint32_t ansiSuffix = ansiPath + static_cast<uint32_t>(ansiTarget.size()) + 1;
    uint32_t widePath = ansiSuffix + 1;
    if (widePath % 2)
        ++widePath;
    uint32_t wideSuffix = widePath + static_cast<uint32_t>(target.size() + 1) * 2;
    uint32_t size = wideSuffix + 2;
    out.u32(size);
    out.u32(headerSize);
    out.u32(kVolumeIdAndLocalBasePath);
    out.u32(headerSize); // volume id
    out.u32(ansiPath);
    out.u32(0); // no network share
    out.u32(ansiSuffix);
    out.u32(widePath);
    out.u32(wideSuffix);
    out.u32(volumeSize);
    out.u32(3); // a fixed drive
    out.u32(0); // serial number
    out.u32(0x10); // label offset
    out.zeros(1); // an empty label
    out.ansiz(ansiTarget);
    out.zeros(1); // the common path suffix
    out.zeros(widePath - (ansiSuffix + 1));
    out.wide(target);
    out.u16(0);
    out.u16(0);

    for (const auto& [text, flag] : strings)
        if (!text->empty())
            out.counted(toUtf16(*text));
    out.u32(0); // no extra data
    return out.bytes;
}

ShellLink readShellLink(std::span<const uint8_t> bytes)
{
    Reader reader(bytes);
    if (reader.u32("header") != kHeaderSize)
        throw ShellLinkError("not a shortcut: its header is not 76 bytes");
    auto classId = reader.take(16, "header");
    if (!std::equal(classId.begin(), classId.end(), kLinkClassId.begin()))
        throw ShellLinkError("not a shortcut: it names another class");
    uint32_t flags = reader.u32("header");
    reader.take(4 + 8 + 8 + 8 + 4, "header"); // attributes, three times, size
    ShellLink link;
    link.iconIndex = static_cast<int32_t>(reader.u32("header"));
    reader.take(4 + 2 + 2 + 4 + 4, "header"); // show command, hot key, reserved

    if (flags & HasLinkTargetIdList)
        reader.take(reader.u16("item-id list"), "item-id list");
    if (flags & HasLinkInfo) {
        uint32_t size = u32At(bytes.subspan(reader.position()), 0);
        if (size < 8)
            throw ShellLinkError("the shortcut's link-info block is too small");
        link.target = linkInfoTarget(reader.take(size, "link-info block"));
    }

    auto string = [&](const char* part) {
        uint16_t count = reader.u16(part);
        if (flags & IsUnicode)
            return fromUtf16(reader.take(size_t { count } * 2, part));
        return fromAnsi(reader.take(count, part));
    };
    std::string relativePath;
    if (flags & HasName)
        link.description = string("name");
    if (flags & HasRelativePath)
        relativePath = string("relative path");
    if (flags & HasWorkingDirectory)
        link.workingDirectory = string("working directory");
    if (flags & HasArguments)
        link.arguments = string("arguments");
    if (flags & HasIconLocation)
        link.iconLocation = string("icon location");

    // Extra data: blocks of (size, signature, data) up to a size below 4.
    while (link.target.empty() && reader.left() >= 8) {
        uint32_t size = reader.u32("extra data");
        if (size < 8)
            break;
        uint32_t signature = reader.u32("extra data");
        auto data = reader.take(size - 8, "extra data");
        if (signature == kEnvironmentVariableBlock && data.size() >= kEnvironmentAnsiSize + kEnvironmentUnicodeSize) {
            link.target = fromUtf16(wideString(data.subspan(kEnvironmentAnsiSize, kEnvironmentUnicodeSize), 0));
            if (link.target.empty())
                link.target = fromAnsi(cString(data.first(kEnvironmentAnsiSize), 0));
        }
    }
    if (link.target.empty())
        link.target = relativePath;
    return link;
}

} // namespace vt::product
