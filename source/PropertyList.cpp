#include "source/PropertyList.hpp"

#include <cstring>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

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

    std::optional<PlistValue> fromNode(plist_t node, size_t depth);

    // Converts a container's item and hands it to `add`; false when it
    // cannot be read. A UID has no place in our values: the container closes up.
    template <typename Add> bool addItem(plist_t item, size_t depth, Add&& add)
    {
        if (!item)
            return false;
        if (plist_get_node_type(item) == PLIST_UID)
            return true;
        auto value = fromNode(item, depth);
        if (!value)
            return false;
        add(*value);
        return true;
    }

    std::optional<PlistValue> arrayFromNode(plist_t node, size_t depth)
    {
        PlistArray array;
        uint32_t size = plist_array_get_size(node);
        array.reserve(size);
        for (uint32_t i = 0; i < size; ++i) {
            auto append = [&](PlistValue& value) { array.push_back(std::move(value)); };
            if (!addItem(plist_array_get_item(node, i), depth + 1, append))
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

    std::optional<PlistValue> dictFromNode(plist_t node, size_t depth)
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
                || !addItem(item, depth + 1,
                            [&](PlistValue& value) { dict.insert_or_assign(key.get(), std::move(value)); }))
                return std::nullopt;
        }
        return PlistValue(std::move(dict));
    }

    // Recursive: `depth` counts the containers down to `node`, bounded here
    // too, whatever was checked before.
    std::optional<PlistValue> fromNode(plist_t node, size_t depth)
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
            return depth <= kMaximumPropertyListDepth ? arrayFromNode(node, depth) : std::nullopt;
        case PLIST_DICT:
            return depth <= kMaximumPropertyListDepth ? dictFromNode(node, depth) : std::nullopt;
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

    // What a document would cost libplist, found without recursion.
    enum class Shape { WithinLimits, Malformed, TooDeep, TooManyValues };

    uint64_t bigEndian(const unsigned char* bytes, size_t width)
    {
        uint64_t value = 0;
        for (size_t i = 0; i < width; ++i)
            value = value << 8 | bytes[i];
        return value;
    }

    // A binary list is a table of objects that refer to each other by
    // number; libplist follows every reference as it comes, once per use.
    // Each object is looked at once here: the deepest chain of containers
    // below it and the values it stands for. A structure that cannot be read
    // is refused outright, as libplist would refuse it, so nothing it would
    // follow goes unchecked.
    Shape binaryShape(std::string_view document)
    {
        constexpr size_t kHeader = 8, kTrailer = 32;
        if (document.size() < kHeader + kTrailer)
            return Shape::Malformed;
        const auto* data = reinterpret_cast<const unsigned char*>(document.data());
        const unsigned char* trailer = data + document.size() - kTrailer;
        const size_t offsetWidth = trailer[6], referenceWidth = trailer[7];
        const uint64_t count = bigEndian(trailer + 8, 8), root = bigEndian(trailer + 16, 8),
                       table = bigEndian(trailer + 24, 8);
        const uint64_t objectsEnd = document.size() - kTrailer;
        if (offsetWidth < 1 || offsetWidth > 8 || referenceWidth < 1 || referenceWidth > 8 || count == 0
            || root >= count || table < kHeader || table > objectsEnd
            || count > (objectsEnd - table) / offsetWidth)
            return Shape::Malformed;
        // Real writers list no object that nothing refers to.
        if (count > kMaximumPropertyListValues)
            return Shape::TooManyValues;

        // The references of container `object`: where they start and how many.
        struct Refs {
            bool container = false;
            uint64_t at = 0, count = 0;
        };
        auto referencesOf = [&](uint64_t object, Refs& refs) -> bool {
            uint64_t offset = bigEndian(data + table + object * offsetWidth, offsetWidth);
            if (offset < kHeader || offset >= table)
                return false;
            const unsigned char marker = data[offset];
            const unsigned type = marker & 0xF0;
            refs = {};
            if (type != 0xA0 && type != 0xC0 && type != 0xD0)
                return true; // no container: nothing to follow
            uint64_t items = marker & 0x0F, at = offset + 1;
            if (items == 0x0F) {
                // The count follows as an integer object of 1, 2, 4 or 8 bytes.
                if (at >= table || (data[at] & 0xF0) != 0x10 || (data[at] & 0x0F) > 3)
                    return false;
                const size_t width = size_t(1) << (data[at] & 0x0F);
                if (at + 1 + width > table)
                    return false;
                items = bigEndian(data + at + 1, width);
                at += 1 + width;
            }
            const uint64_t references = type == 0xD0 ? items * 2 : items;
            if ((type == 0xD0 && items > UINT64_MAX / 2) || references > (objectsEnd - at) / referenceWidth)
                return false;
            refs = { true, at, references };
            return true;
        };

        enum : uint8_t { Unseen, Open, Done };
        std::vector<uint8_t> state(count, Unseen);
        // At most twice the limit before the check below: no overflow.
        std::vector<uint32_t> values(count, 0);
        struct Frame {
            uint64_t object;
            Refs refs;
            uint64_t next = 0;
        };
        std::vector<Frame> path;
        // The path holds containers only; a value that is none is done at once.
        auto enter = [&](uint64_t object) -> Shape {
            Frame frame { object, {} };
            if (!referencesOf(object, frame.refs))
                return Shape::Malformed;
            if (frame.refs.container && path.size() >= kMaximumPropertyListDepth)
                return Shape::TooDeep;
            state[object] = Open;
            values[object] = 1;
            path.push_back(frame);
            return Shape::WithinLimits;
        };
        if (Shape entered = enter(root); entered != Shape::WithinLimits)
            return entered;
        while (!path.empty()) {
            Frame& frame = path.back();
            if (frame.next == frame.refs.count) {
                state[frame.object] = Done;
                const uint32_t total = values[frame.object];
                path.pop_back();
                if (!path.empty())
                    values[path.back().object] += total;
                if (total > kMaximumPropertyListValues
                    || (!path.empty() && values[path.back().object] > kMaximumPropertyListValues))
                    return Shape::TooManyValues;
                continue;
            }
            const uint64_t child
                = bigEndian(data + frame.refs.at + frame.next * referenceWidth, referenceWidth);
            ++frame.next;
            if (child >= count || state[child] == Open)
                return Shape::Malformed; // out of the table, or a cycle
            if (state[child] == Done) {
                values[frame.object] += values[child];
                if (values[frame.object] > kMaximumPropertyListValues)
                    return Shape::TooManyValues;
                continue;
            }
            if (Shape entered = enter(child); entered != Shape::WithinLimits)
                return entered;
        }
        return Shape::WithinLimits;
    }

    // An XML list cannot share values, but its depth and its count of
    // values are bounded just the same: libplist frees a list recursively,
    // and our own walk recurses too. Counted from the tags alone, which can
    // only overcount (a tag that libplist would refuse counts as well).
    Shape xmlShape(std::string_view document)
    {
        size_t depth = 0, elements = 0;
        for (size_t at = document.find('<'); at != std::string_view::npos; at = document.find('<', at)) {
            std::string_view rest = document.substr(at);
            // Comments, character data, processing instructions and the
            // document type hold no values.
            for (auto [open, close] : { std::pair { "<!--", "-->" }, std::pair { "<![CDATA[", "]]>" },
                                        std::pair { "<?", "?>" }, std::pair { "<!", ">" } }) {
                if (rest.starts_with(open)) {
                    size_t end = document.find(close, at + std::strlen(open));
                    if (end == std::string_view::npos)
                        return Shape::WithinLimits; // unterminated: libplist refuses it
                    at = end + std::strlen(close);
                    rest = {};
                    break;
                }
            }
            if (rest.empty())
                continue;
            const bool closing = rest.size() > 1 && rest[1] == '/';
            const size_t nameStart = closing ? 2 : 1;
            const size_t nameEnd = rest.find_first_of(" \t\r\n/>", nameStart);
            const size_t end = rest.find('>', nameStart);
            if (end == std::string_view::npos)
                return Shape::WithinLimits;
            std::string_view name = rest.substr(nameStart, std::min(nameEnd, end) - nameStart);
            const bool empty = rest[end - 1] == '/';
            at += end + 1;
            const bool container = name == "array" || name == "dict";
            if (closing) {
                if (container && depth > 0)
                    --depth;
                continue;
            }
            if (++elements > kMaximumPropertyListValues)
                return Shape::TooManyValues;
            if (container && !empty && ++depth > kMaximumPropertyListDepth)
                return Shape::TooDeep;
        }
        return Shape::WithinLimits;
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

std::optional<PlistValue> parsePropertyList(const void* bytes, size_t length, std::string* problem)
{
    auto refuse = [problem](std::string why) -> std::optional<PlistValue> {
        if (problem)
            *problem = std::move(why);
        return std::nullopt;
    };
    if (!bytes || length == 0 || length > std::numeric_limits<uint32_t>::max())
        return refuse("it is not a property list");
    std::string_view document(static_cast<const char*>(bytes), length);
    // libplist takes whatever is not binary for XML.
    Shape shape = document.starts_with("bplist00") ? binaryShape(document) : xmlShape(document);
    switch (shape) {
    case Shape::WithinLimits:
        break;
    case Shape::Malformed:
        return refuse("it is not a property list");
    case Shape::TooDeep:
        return refuse("it is nested deeper than " + std::to_string(kMaximumPropertyListDepth) + " levels");
    case Shape::TooManyValues:
        return refuse("it holds more than " + std::to_string(kMaximumPropertyListValues) + " values");
    }
    PlistNode root;
    plist_from_memory(document.data(), static_cast<uint32_t>(length), outPtr(root));
    std::optional<PlistValue> value = root ? fromNode(root.get(), 1) : std::nullopt;
    if (!value)
        return refuse("it is not a property list");
    return value;
}

std::optional<PlistValue> readPropertyListFile(const std::filesystem::path& path, std::string* problem,
                                               uint64_t maximumSize)
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
    const uint64_t limit = std::min<uint64_t>(maximumSize, std::numeric_limits<uint32_t>::max());
    auto tooLarge = [&] {
        return refuse(limit == std::numeric_limits<uint32_t>::max()
                          ? std::string("it is larger than a property list can be")
                          : "it is larger than " + std::to_string(limit) + " bytes");
    };
    if (static_cast<uint64_t>(st.st_size) > limit)
        return tooLarge();

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
        // A file that grows while it is read is held to the same limit.
        if (contents.size() > limit)
            return tooLarge();
    }
    return parsePropertyList(contents.data(), contents.size(), problem);
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
