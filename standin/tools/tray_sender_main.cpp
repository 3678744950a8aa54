// vt-standin-traysender: the Windows side's tray, writing tray messages to
// the launcher's launch-notify socket, one message per connection.
//
//   vt-standin-traysender [options] OPERATION
//
// OPERATION is add, modify, delete or a number (sent as it stands, so an
// unknown one can be tried).
//
// Where:
//   --socket PATH      the socket; default: $VT_SYSTRAY_SOCKET
//   --layout 64|32     the word size of the Wine side (default: this build's)
// The icon (the tray record):
//   --hwnd N --id N --callback N     default 1, 1, 0x400
//   --size N           width and height in pixels (16)
//   --bpp N            bits per pixel (32)
//   --planes N         colour planes (1)
//   --colour RRGGBB    every pixel's colour (ff8000)
//   --mask opaque|transparent|checker|ring     the see-through pixels (opaque)
//   --record FILE      the payload read from FILE instead of the icon above
// Faults and load:
//   --code N           the message code (74)
//   --claim N          the length field says N, whatever follows
//   --send N           only the first N bytes of the message go out
//   --count N          the message N times, one connection each (1)
// Numbers are decimal, or hexadecimal after 0x.
//
// Exit status 0 when every message was written; otherwise one line on
// standard error and status 1.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "standin/tray/TrayRecord.hpp"

using namespace vt;
using namespace vt::standin;

namespace {

[[noreturn]] void fail(const std::string& reason)
{
    std::fprintf(stderr, "vt-standin-traysender: %s\n", reason.c_str());
    std::exit(1);
}

uint64_t number(const std::string& option, const std::string& text, int base = 0)
{
    if (text.empty() || text[0] == '-')
        fail(option + " wants a number, not '" + text + "'");
    errno = 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text.c_str(), &end, base);
    if (errno != 0 || *end != '\0')
        fail(option + " wants a number, not '" + text + "'");
    return value;
}

uint32_t number32(const std::string& option, const std::string& text, int base = 0)
{
    uint64_t value = number(option, text, base);
    if (value > UINT32_MAX)
        fail(option + " " + text + " does not fit 32 bits");
    return static_cast<uint32_t>(value);
}

struct Options {
    std::string socket;
    const TrayLayout* layout = &kNativeTrayLayout;
    std::optional<uint64_t> operation;
    uint32_t hwnd = 1, id = 1, callback = 0x400;
    uint32_t size = 16, bpp = 32, planes = 1, colour = 0xff8000;
    TrayMask mask = TrayMask::Opaque;
    std::optional<std::string> record;
    uint32_t code = kTrayMessageCode;
    std::optional<uint32_t> claim;
    std::optional<size_t> send;
    uint64_t count = 1;
};

Options parse(int argc, char** argv)
{
    Options options;
    if (const char* socket = std::getenv("VT_SYSTRAY_SOCKET"))
        options.socket = socket;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.rfind("--", 0) != 0) {
            if (options.operation)
                fail("one operation only; '" + arg + "' is one too many");
            if (arg == "add")
                options.operation = kTrayOperationAdd;
            else if (arg == "modify")
                options.operation = kTrayOperationModify;
            else if (arg == "delete")
                options.operation = kTrayOperationDelete;
            else
                options.operation = number("the operation", arg);
            continue;
        }
        if (i + 1 >= argc)
            fail(arg + " wants a value");
        std::string value = argv[++i];
        if (arg == "--socket")
            options.socket = value;
        else if (arg == "--layout" && (value == "64" || value == "32"))
            options.layout = value == "64" ? &kTrayLayout64 : &kTrayLayout32;
        else if (arg == "--hwnd")
            options.hwnd = number32(arg, value);
        else if (arg == "--id")
            options.id = number32(arg, value);
        else if (arg == "--callback")
            options.callback = number32(arg, value);
        else if (arg == "--size")
            options.size = number32(arg, value);
        else if (arg == "--bpp")
            options.bpp = number32(arg, value);
        else if (arg == "--planes")
            options.planes = number32(arg, value);
        else if (arg == "--colour" && value.size() == 6)
            options.colour = number32(arg, value, 16);
        else if (arg == "--mask" && value == "opaque")
            options.mask = TrayMask::Opaque;
        else if (arg == "--mask" && value == "transparent")
            options.mask = TrayMask::Transparent;
        else if (arg == "--mask" && value == "checker")
            options.mask = TrayMask::Checker;
        else if (arg == "--mask" && value == "ring")
            options.mask = TrayMask::Ring;
        else if (arg == "--record")
            options.record = value;
        else if (arg == "--code")
            options.code = number32(arg, value);
        else if (arg == "--claim")
            options.claim = number32(arg, value);
        else if (arg == "--send")
            options.send = number(arg, value);
        else if (arg == "--count")
            options.count = number(arg, value);
        else
            fail("unknown option or value: " + arg + " " + value);
    }
    if (!options.operation)
        fail("no operation (add, modify, delete or a number)");
    if (options.socket.empty())
        fail("no socket: give --socket or set VT_SYSTRAY_SOCKET");
    // A picture this large is no tray icon, and would only cost memory here.
    if (options.size > 4096 || options.bpp > 64 || options.planes > 64)
        fail("--size, --bpp or --planes is beyond what this tool draws");
    return options;
}

std::vector<uint8_t> payload(const Options& options)
{
    if (options.record) {
        std::ifstream in(*options.record, std::ios::binary);
        if (!in)
            fail("cannot read the record " + *options.record + ": " + std::strerror(errno));
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    TrayPicture picture = solidPicture(options.size, options.colour, options.bpp);
    picture.planes = options.planes;
    setTrayMask(picture, options.mask);
    return trayRecord(*options.layout, static_cast<int32_t>(options.hwnd), static_cast<int32_t>(options.id),
                      static_cast<int32_t>(options.callback), picture);
}

} // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);
    std::vector<uint8_t> message = trayMessage(*options.layout, *options.operation, payload(options), options.code);
    if (options.claim) {
        size_t at = 4 + options.layout->operationWidth;
        std::memcpy(message.data() + at, &*options.claim, sizeof *options.claim);
    }
    if (options.send && *options.send < message.size())
        message.resize(*options.send);
    for (uint64_t i = 0; i < options.count; ++i) {
        if (!sendTrayBytes(options.socket, message))
            fail("cannot send message " + std::to_string(i + 1) + " to " + options.socket + ": "
                 + std::strerror(errno));
    }
    return 0;
}
