#include "source/PropertyList.hpp"

#include <cstring>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/posix_glue.hpp"

namespace vt {

namespace {

    struct PlistFree {
        void operator()(void* node) const noexcept { plist_free(static_cast<plist_t>(node)); }
    };
    using PlistNode = std::unique_ptr<void, PlistFree>;

    struct MallocFree {
        void operator()(void* p) const noexcept { std::free(p); }
    };

    std::optional<PlistValue> fromNode(plist_t node);

    // Converts a container's item and hands it to `add`; false when it
    // cannot be read. A UID has no place in our values: the container closes up.
    template <typename Add> bool addItem(plist_t item, Add&& add)
    {
        if (!item)
            return false;
        if (plist_get_node_type(item) == PLIST_UID)
            return true;
        auto value = fromNode(item);
        if (!value)
            return false;
        add(*value);
        return true;
    }

    std::optional<PlistValue> arrayFromNode(plist_t node)
    {
        PlistArray array;
        uint32_t size = plist_array_get_size(node);
        array.reserve(size);
        for (uint32_t i = 0; i < size; ++i) {
            if (!addItem(plist_array_get_item(node, i), [&](PlistValue& value) { array.push_back(std::move(value)); }))
                return std::nullopt;
        }
        return PlistValue(std::move(array));
    }

    // libplist ends the process when asked for the text of a key that holds
    // a NUL, which a binary list can encode; its XML writer shows the key whole.
    bool keyHoldsNul(plist_t key)
    {
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(key, &xml, &length);
        bool nul = !xml || std::memchr(xml, '\0', length);
        plist_to_xml_free(xml);
        return nul;
    }

    std::optional<PlistValue> dictFromNode(plist_t node)
    {
        PlistDict dict;
        std::unique_ptr<void, MallocFree> iterator;
        plist_dict_new_iter(node, outPtr(iterator));
        uint32_t size = plist_dict_get_size(node);
        std::unique_ptr<char, MallocFree> key;
        for (uint32_t i = 0; i < size; ++i) {
            plist_t item = nullptr;
            plist_dict_next_item(node, iterator.get(), nullptr, &item);
            plist_t keyNode = item ? plist_dict_item_get_key(item) : nullptr;
            if (!keyNode || keyHoldsNul(keyNode))
                return std::nullopt;
            plist_get_key_val(keyNode, outPtr(key));
            if (!key
                || !addItem(item, [&](PlistValue& value) { dict.insert_or_assign(key.get(), std::move(value)); }))
                return std::nullopt;
        }
        return PlistValue(std::move(dict));
    }

    std::optional<PlistValue> fromNode(plist_t node)
    {
        switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return PlistValue(value != 0);
        }
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            // libplist keeps negative integers as their two's complement.
            return PlistValue(static_cast<int64_t>(value));
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return PlistValue(value);
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return PlistValue(text ? std::string(text, length) : std::string());
        }
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            auto* begin = reinterpret_cast<const uint8_t*>(bytes);
            return PlistValue(bytes ? PlistData(begin, begin + length) : PlistData());
        }
        case PLIST_DATE: {
            int32_t seconds = 0, microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            // libplist cuts the seconds toward zero and gives the fraction
            // without its sign: before the reference date it counts back.
            // (Within the second before it, the sign is lost: read as after.)
            double fraction = std::fabs(double(microseconds)) / 1e6;
            return PlistValue(PlistDate { seconds < 0 ? seconds - fraction : seconds + fraction });
        }
        case PLIST_ARRAY:
            return arrayFromNode(node);
        case PLIST_DICT:
            return dictFromNode(node);
        default:
            return std::nullopt;
        }
    }

    plist_t toNode(const PlistValue& value)
    {
        return std::visit(
            [](const auto& v) -> plist_t {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, bool>) {
                    return plist_new_bool(v ? 1 : 0);
                } else if constexpr (std::is_same_v<T, int64_t>) {
                    return plist_new_uint(static_cast<uint64_t>(v));
                } else if constexpr (std::is_same_v<T, double>) {
                    return plist_new_real(v);
                } else if constexpr (std::is_same_v<T, std::string>) {
                    return plist_new_string(v.c_str());
                } else if constexpr (std::is_same_v<T, PlistData>) {
                    return plist_new_data(reinterpret_cast<const char*>(v.data()), v.size());
                } else if constexpr (std::is_same_v<T, PlistDate>) {
                    // libplist holds whole seconds in 32 bits: a date beyond
                    // them is written as the nearest one it can hold.
                    double seconds = std::isnan(v.secondsSinceReferenceDate) ? 0 : v.secondsSinceReferenceDate;
                    double whole = std::clamp(std::floor(seconds), double(INT32_MIN), double(INT32_MAX));
                    auto micro = static_cast<int32_t>(std::lround(std::clamp(seconds - whole, 0.0, 0.999999) * 1e6));
                    return plist_new_date(static_cast<int32_t>(whole), micro);
                } else if constexpr (std::is_same_v<T, PlistArray>) {
                    plist_t array = plist_new_array();
                    for (const auto& item : v)
                        plist_array_append_item(array, toNode(item));
                    return array;
                } else {
                    plist_t dict = plist_new_dict();
                    for (const auto& [key, item] : v)
                        plist_dict_set_item(dict, key.c_str(), toNode(item));
                    return dict;
                }
            },
            value.storage);
    }

} // namespace

const PlistValue* PlistValue::find(std::string_view key) const
{
    const PlistDict* dict = asDict();
    if (!dict)
        return nullptr;
    auto found = dict->find(key);
    return found == dict->end() ? nullptr : &found->second;
}

std::optional<PlistValue> parsePropertyList(const void* bytes, size_t length)
{
    if (!bytes || length == 0 || length > std::numeric_limits<uint32_t>::max())
        return std::nullopt;
    PlistNode root;
    plist_from_memory(static_cast<const char*>(bytes), static_cast<uint32_t>(length), outPtr(root));
    if (!root)
        return std::nullopt;
    return fromNode(root.get());
}

std::optional<PlistValue> readPropertyListFile(const std::filesystem::path& path, std::string* problem)
{
    auto refuse = [problem](std::string why) -> std::optional<PlistValue> {
        if (problem)
            *problem = std::move(why);
        return std::nullopt;
    };
    auto failedWith = [](int error) {
        return error == ENOENT ? std::string("it does not exist") : "it cannot be read (" + std::string(std::strerror(error)) + ")";
    };
    // Non-blocking, so that a FIFO in the file's place cannot stall the
    // open; it is refused as soon as fstat shows what it is.
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd)
        return refuse(failedWith(errno));
    struct stat st;
    if (fstat(fd.get(), &st) != 0)
        return refuse(failedWith(errno));
    if (!S_ISREG(st.st_mode))
        return refuse("it is not a regular file");
    if (static_cast<uint64_t>(st.st_size) > std::numeric_limits<uint32_t>::max())
        return refuse("it is larger than a property list can be");

    std::string contents;
    char buffer[16384];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return refuse(failedWith(errno));
        }
        if (n == 0)
            break;
        contents.append(buffer, static_cast<size_t>(n));
        if (contents.size() > std::numeric_limits<uint32_t>::max())
            return refuse("it is larger than a property list can be");
    }
    auto value = parsePropertyList(contents.data(), contents.size());
    if (!value)
        return refuse("it is not a property list");
    return value;
}

namespace {
    template <void (*Free)(char*)> struct PlistTextFree {
        void operator()(char* text) const noexcept { Free(text); }
    };

    template <void (*Convert)(plist_t, char**, uint32_t*), void (*Free)(char*)>
    std::string documentOf(const PlistValue& value)
    {
        PlistNode root(toNode(value));
        std::unique_ptr<char, PlistTextFree<Free>> text;
        uint32_t length = 0;
        Convert(root.get(), outPtr(text), &length);
        return text ? std::string(text.get(), length) : std::string();
    }
} // namespace

std::string toXmlPropertyList(const PlistValue& value) { return documentOf<plist_to_xml, plist_to_xml_free>(value); }

std::string toBinaryPropertyList(const PlistValue& value)
{
    return documentOf<plist_to_bin, plist_to_bin_free>(value);
}

} // namespace vt
