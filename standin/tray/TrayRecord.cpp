#include "standin/tray/TrayRecord.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "base/posix_glue.hpp"

namespace vt::standin {

namespace {
    template <typename T> void put(std::vector<uint8_t>& bytes, size_t offset, T value)
    {
        if (bytes.size() < offset + sizeof value)
            bytes.resize(offset + sizeof value);
        std::memcpy(bytes.data() + offset, &value, sizeof value);
    }

    // The Windows side's rounding: the whole area's bits up to 16, in bytes.
    size_t areaBytes(uint64_t bits) { return static_cast<size_t>(((bits + 15) >> 3) & 0x1FFFFFFE); }
} // namespace

TrayPicture solidPicture(uint32_t size, uint32_t rgb, uint32_t bpp)
{
    TrayPicture picture;
    picture.width = picture.height = size;
    picture.bpp = bpp;
    picture.colours.assign(size_t(size) * size, rgb);
    picture.transparent.assign(size_t(size) * size, false);
    return picture;
}

void setTrayMask(TrayPicture& picture, TrayMask mask)
{
    picture.transparent.assign(size_t(picture.width) * picture.height, false);
    const double centreX = picture.width / 2.0, centreY = picture.height / 2.0;
    for (uint32_t y = 0; y < picture.height; ++y) {
        for (uint32_t x = 0; x < picture.width; ++x) {
            bool transparent = false;
            switch (mask) {
            case TrayMask::Opaque: break;
            case TrayMask::Transparent: transparent = true; break;
            case TrayMask::Checker: transparent = (x + y) % 2 == 1; break;
            case TrayMask::Ring: {
                double dx = x + 0.5 - centreX, dy = y + 0.5 - centreY;
                double distance = std::sqrt(dx * dx + dy * dy);
                transparent = distance < picture.width / 4.0 || distance > picture.width / 2.0;
                break;
            }
            }
            picture.transparent[size_t(y) * picture.width + x] = transparent;
        }
    }
}

std::vector<uint8_t> trayMaskBits(const TrayPicture& p)
{
    std::vector<uint8_t> bits(areaBytes(uint64_t(p.width) * p.height), 0);
    size_t rowBits = size_t(p.width >> 3) * 8;
    for (uint32_t y = 0; y < p.height; ++y) {
        for (uint32_t x = 0; x < p.width; ++x) {
            size_t pixel = size_t(y) * p.width + x;
            if (pixel >= p.transparent.size() || !p.transparent[pixel])
                continue;
            size_t bit = y * rowBits + x;
            if (bit / 8 < bits.size())
                bits[bit / 8] |= uint8_t(0x80 >> (bit % 8));
        }
    }
    return bits;
}

std::vector<uint8_t> trayColourBits(const TrayPicture& p)
{
    std::vector<uint8_t> bits(areaBytes(uint64_t(p.width) * p.height * p.planes * p.bpp), 0);
    size_t pixelBytes = p.bpp / 8;
    if (pixelBytes < 3)
        return bits;
    for (uint32_t y = 0; y < p.height; ++y) {
        for (uint32_t x = 0; x < p.width; ++x) {
            size_t pixel = size_t(y) * p.width + x;
            size_t at = y * (size_t(p.width) * pixelBytes) + x * pixelBytes;
            if (pixel >= p.colours.size() || at + 3 > bits.size())
                continue;
            uint32_t rgb = p.colours[pixel];
            bits[at] = uint8_t(rgb);           // blue
            bits[at + 1] = uint8_t(rgb >> 8);  // green
            bits[at + 2] = uint8_t(rgb >> 16); // red
        }
    }
    return bits;
}

std::vector<uint8_t> trayRecord(const TrayLayout& layout, int32_t hwnd, int32_t id, int32_t callbackMessage,
                                const TrayPicture& picture)
{
    std::vector<uint8_t> record(layout.recordHeaderSize, 0);
    put(record, layout.hwndOffset, hwnd);
    put(record, layout.idOffset, id);
    put(record, layout.callbackMessageOffset, callbackMessage);
    put(record, layout.widthOffset, picture.width);
    put(record, layout.heightOffset, picture.height);
    put(record, layout.planesOffset, picture.planes);
    put(record, layout.bppOffset, picture.bpp);
    auto mask = trayMaskBits(picture);
    auto colour = trayColourBits(picture);
    record.insert(record.end(), mask.begin(), mask.end());
    record.insert(record.end(), colour.begin(), colour.end());
    return record;
}

std::vector<uint8_t> trayMessage(const TrayLayout& layout, uint64_t operation, const std::vector<uint8_t>& payload,
                                 uint32_t code)
{
    std::vector<uint8_t> message;
    put(message, 0, code);
    if (layout.operationWidth == 8)
        put(message, 4, operation);
    else
        put(message, 4, static_cast<uint32_t>(operation));
    put(message, 4 + layout.operationWidth, static_cast<uint32_t>(payload.size()));
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

bool sendTrayBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
           && writeAll(socket.get(), bytes.data(), bytes.size(), true);
}

} // namespace vt::standin
