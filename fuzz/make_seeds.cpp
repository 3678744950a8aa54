// Writes the seed corpus of every fuzz target: a handful of sound inputs in
// the real formats (loader requests and tray records as the stand-in
// product builds them, property lists as libplist writes them) and a few
// slightly broken ones, each a file named after what it holds.
//
//   vt-fuzz-seeds CORPUS   (fuzz/corpus; its target folders are rewritten)
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "loader/WineLoaderProtocol.hpp"
#include "source/PropertyList.hpp"
#include "standin/loader/LoaderClient.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace std::string_literals;
using standin::encodeRequestHead;
using standin::nulTerminated;

namespace {

std::filesystem::path corpus;

void write(const std::string& target, const std::string& name, const std::string& bytes)
{
    std::filesystem::create_directories(corpus / target);
    std::ofstream(corpus / target / name, std::ios::binary) << bytes;
}

std::string text(const std::vector<uint8_t>& bytes) { return std::string(bytes.begin(), bytes.end()); }

template <typename T> std::string raw(T value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

// loader_request: flags (descriptors on the carrier, bit 3 the 32-bit
// layout, bit 4 pipes, bits 5-7 descriptors on the trailer), the trailer's
// length, the head, the trailer.
void loaderSeeds()
{
    auto seed = [](const std::string& name, int carrier, const std::string& head, bool layout32 = false,
                   bool pipes = false, const std::string& trailer = {}, int onTrailer = 0) {
        char flags = static_cast<char>(carrier | (layout32 ? 0x08 : 0) | (pipes ? 0x10 : 0) | onTrailer << 5);
        write("loader_request", name, std::string(1, flags) + static_cast<char>(trailer.size()) + head + trailer);
    };
    const std::string environment = nulTerminated({ "WINEPREFIX=/home/user/.bottle", "LANG=C.UTF-8", "A=1" });
    const std::string arguments = nulTerminated({ "", "C:\\Program Files\\Notepad\\notepad.exe", "/p" });
    const std::string sound = encodeRequestHead(WineLoaderRequestX86_64, "/home/user\0"s, environment, arguments);
    seed("sound-four-descriptors", 4, sound);
    seed("sound-five-pipes", 5, sound, false, true);
    seed("smallest", 4, encodeRequestHead(WineLoaderRequestX86_64, "\0"s, "", "\0"s));
    seed("sound-32-bit", 5, encodeRequestHead(WineLoaderRequestI386, "/tmp\0"s, environment, arguments), true, true);
    seed("other-architecture", 4, encodeRequestHead(WineLoaderRequestI386, "", environment, arguments));
    seed("three-descriptors", 3, sound);
    seed("six-descriptors", 6, sound, false, true);
    seed("seven-descriptors", 7, sound);
    seed("descriptors-on-extra-byte", 4, sound, false, false, "x", 4);
    seed("two-directories", 4, encodeRequestHead(WineLoaderRequestX86_64, "a\0b\0"s, environment, arguments));
    seed("environment-unterminated", 4, encodeRequestHead(WineLoaderRequestX86_64, "", "A=1", arguments));
    seed("no-arguments", 4, encodeRequestHead(WineLoaderRequestX86_64, "", environment, ""));
    seed("beyond-limit", 4, raw(WineLoaderRequestX86_64) + raw(uint64_t { 1 } << 40));
    std::string wrapped = encodeRequestHead(WineLoaderRequestI386, "", environment, "\0"s);
    wrapped.replace(4, 8, raw(uint64_t { 1 } << 32));
    seed("32-bit-length-high-bits", 4, wrapped, true);
    seed("cut-short", 4, sound.substr(0, sound.size() - 5));
}

// tray_message: one message as a sender writes it.
void trayMessageSeeds()
{
    using standin::TrayMask;
    for (const TrayLayout* layout : { &kTrayLayout64, &kTrayLayout32 }) {
        const std::string suffix = layout == &kTrayLayout64 ? "-64" : "-32";
        auto checker = standin::solidPicture(16, 0x3366CC);
        standin::setTrayMask(checker, TrayMask::Checker);
        auto ring = standin::solidPicture(32, 0xCC3311, 24);
        standin::setTrayMask(ring, TrayMask::Ring);
        const auto add = standin::trayRecord(*layout, 0x10020, 1, 0x8001, checker);
        auto message = [&](const std::string& name, uint64_t operation, const std::vector<uint8_t>& payload,
                           uint32_t code = kTrayMessageCode) {
            write("tray_message", name + suffix, text(standin::trayMessage(*layout, operation, payload, code)));
        };
        message("add-checker", kTrayOperationAdd, add);
        message("modify-ring", kTrayOperationModify, standin::trayRecord(*layout, 0x10020, 1, 0x8001, ring));
        message("delete", kTrayOperationDelete, std::vector<uint8_t>(add.begin(), add.begin() + layout->recordHeaderSize));
        message("unknown-operation", 7, add);
        message("wrong-code", kTrayOperationAdd, add, 75);
        std::string cut = text(standin::trayMessage(*layout, kTrayOperationAdd, add));
        write("tray_message", "cut-short" + suffix, cut.substr(0, cut.size() / 2));
        write("tray_message", "beyond-limit" + suffix,
              raw(kTrayMessageCode) + std::string(layout->operationWidth, '\0')
                  + raw(static_cast<uint32_t>(layout->payloadLimit() + 1)));
    }
}

// tray_icons: the layout byte, then operations (kind, 16-bit length, record).
void trayIconSeeds()
{
    using standin::TrayMask;
    auto op = [](int kind, const std::vector<uint8_t>& record) {
        return std::string(1, static_cast<char>(kind)) + raw(static_cast<uint16_t>(record.size())) + text(record);
    };
    for (const TrayLayout* layout : { &kTrayLayout64, &kTrayLayout32 }) {
        const std::string suffix = layout == &kTrayLayout64 ? "-64" : "-32";
        const std::string start(1, layout == &kTrayLayout32 ? '\1' : '\0');
        auto checker = standin::solidPicture(16, 0x3366CC);
        standin::setTrayMask(checker, TrayMask::Checker);
        auto ring = standin::solidPicture(16, 0xCC3311, 24);
        standin::setTrayMask(ring, TrayMask::Ring);
        auto solid = standin::solidPicture(8, 0x22AA44, 24);
        auto record = [&](int32_t id, const standin::TrayPicture& picture) {
            return standin::trayRecord(*layout, 0x10020, id, 0x8001, picture);
        };
        auto header = [&](int32_t id) {
            auto full = record(id, solid);
            return std::vector<uint8_t>(full.begin(), full.begin() + layout->recordHeaderSize);
        };
        write("tray_icons", "add-modify-delete" + suffix,
              start + op(0, record(1, checker)) + op(0, record(2, ring)) + op(1, record(1, ring)) + op(2, header(2)));
        std::string rows = start;
        for (int32_t id = 1; id <= 6; ++id)
            rows += op(0, record(id, solid));
        rows += op(2, header(3)) + op(0, record(3, solid));
        write("tray_icons", "two-rows" + suffix, rows);

        auto planar = solid;
        planar.planes = 2;
        auto indexed = solid;
        indexed.bpp = 8;
        auto empty = solid;
        empty.width = 0;
        auto cut = record(1, checker);
        cut.resize(cut.size() - 1);
        write("tray_icons", "refused" + suffix,
              start + op(3, record(1, planar)) + op(3, record(1, indexed)) + op(3, record(1, empty)) + op(3, cut)
                  + op(0, cut) + op(1, record(9, solid)));
    }
}

// property_list: documents as they stand, XML and binary.
void propertyListSeeds()
{
    const PlistValue info = PlistDict {
        { "CFBundleName", "Notepad" },
        { "CFBundleIdentifier", "com.example.notepad" },
        { "CFBundleExecutable", "Notepad" },
        { "VTHelperAppBottleName", "Office" },
        { "CFBundleDocumentTypes", PlistArray { PlistDict { { "CFBundleTypeExtensions", PlistArray { "txt", "log" } } } } },
        { "Count", -42 },
        { "Ratio", 1.5 },
        { "Yes", true },
        { "Blob", PlistData { 0, 1, 2, 0xFF } },
        { "When", PlistDate { 10.5 } },
    };
    auto item = [](const char* title, const char* action = nullptr) {
        PlistDict dict { { "title", title } };
        if (action)
            dict["action"] = action;
        return dict;
    };
    PlistDict help = item("Help for %@");
    help["submenu"] = PlistArray { item("About %@ and %@"), item("Plain") };
    PlistDict attributed = item("plain %@");
    attributed["attributedTitle"] = PlistDict { { "text", "Bold %@" }, { "font", "bold" } };
    const PlistValue menu = PlistArray {
        help, PlistDict { { "separator", true } }, attributed, item("Show", "activate"), "not an item",
        item("Quit %@", "quit"),
    };
    write("property_list", "info-xml", toXmlPropertyList(info));
    write("property_list", "info-binary", toBinaryPropertyList(info));
    write("property_list", "menu-xml", toXmlPropertyList(menu));
    write("property_list", "menu-binary", toBinaryPropertyList(menu));
    std::string binary = toBinaryPropertyList(menu);
    write("property_list", "menu-binary-cut", binary.substr(0, binary.size() - 9));
    write("property_list", "menu-hand-written",
          "<plist><array><dict><key>title</key><string>Quit &amp; %@</string><key>action</key><string>quit</string>"
          "</dict><dict><key>separator</key><true/></dict><dict><key>submenu</key><array><dict><key>title</key>"
          "<string>x</string></dict></array></dict></array></plist>");
    write("property_list", "unclosed-xml", "<plist><dict><key>a</key><string>x</string></plist>");
}

void commandLineSeeds()
{
    const char* lines[] = {
        "run \"C:\\My Files\\x.exe\" -v",
        "it's a\\ b \"\" x\"\"y",
        "\"unterminated quote",
        "a\u00A0b\u2028c\u3000d\u0085\U0001F600",
        "Caf\u00E9 \"x\" \u00E9cole\n$HOME 'q' \\z",
        "\xFF\xFE bad \xC3 utf-8",
        "file10.txt\nfile9.txt",
    };
    int n = 0;
    for (const char* line : lines)
        write("command_line", "line-" + std::to_string(++n), line);
}

// window_command: the identifier's length, the identifier, the answer.
void windowCommandSeeds()
{
    auto seed = [](const std::string& name, const std::string& identifier, const std::string& answer) {
        write("window_command", name, std::string(1, static_cast<char>(identifier.size())) + identifier + answer);
    };
    seed("yes", "5", "5:1\n");
    seed("no", "12", "12:0");
    seed("two-answers", "7", "7:1\n7:1\n");
    seed("other-identifier", "3", "4:1");
    seed("not-a-number", "9", "9:abc");
    seed("leading-blanks", "1", "1:  42junk");
    seed("empty-answer", "2", "");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
        return 2;
    }
    corpus = argv[1];
    for (const char* target :
         { "loader_request", "tray_message", "tray_icons", "property_list", "command_line", "window_command" })
        std::filesystem::remove_all(corpus / target);
    loaderSeeds();
    trayMessageSeeds();
    trayIconSeeds();
    propertyListSeeds();
    commandLineSeeds();
    windowCommandSeeds();
    return 0;
}
