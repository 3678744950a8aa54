// Property lists: the value type and the conversions from and to the XML
// and binary formats, done by libplist.
//
// A parsed list is a tree of PlistValue. Integers are kept as signed 64-bit
// values (an unsigned value above INT64_MAX wraps, as libplist stores it);
// dates are seconds since 2001-01-01 00:00:00 UTC, the reference date of the
// format; UIDs (used only by keyed archives) are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace vt {

struct PlistValue;

using PlistArray = std::vector<PlistValue>;
using PlistDict = std::map<std::string, PlistValue, std::less<>>;
using PlistData = std::vector<uint8_t>;

struct PlistDate {
    double secondsSinceReferenceDate = 0;
    bool operator==(const PlistDate&) const = default;
};

struct PlistValue {
    using Storage = std::variant<bool, int64_t, double, std::string, PlistData, PlistDate, PlistArray, PlistDict>;

    PlistValue() : storage(false) {}
    PlistValue(bool value) : storage(value) {}
    template <typename Integer>
        requires(std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>)
    PlistValue(Integer value) : storage(static_cast<int64_t>(value))
    {
    }
    PlistValue(double value) : storage(value) {}
    // Spelled out so that a string literal does not become a bool.
    PlistValue(const char* value) : storage(std::string(value)) {}
    PlistValue(std::string value) : storage(std::move(value)) {}
    PlistValue(PlistData value) : storage(std::move(value)) {}
    PlistValue(PlistDate value) : storage(value) {}
    PlistValue(PlistArray value) : storage(std::move(value)) {}
    PlistValue(PlistDict value) : storage(std::move(value)) {}

    // The value when it has that type, otherwise nullptr.
    const bool* asBool() const { return std::get_if<bool>(&storage); }
    const int64_t* asInteger() const { return std::get_if<int64_t>(&storage); }
    const double* asReal() const { return std::get_if<double>(&storage); }
    const std::string* asString() const { return std::get_if<std::string>(&storage); }
    const PlistData* asData() const { return std::get_if<PlistData>(&storage); }
    const PlistDate* asDate() const { return std::get_if<PlistDate>(&storage); }
    const PlistArray* asArray() const { return std::get_if<PlistArray>(&storage); }
    const PlistDict* asDict() const { return std::get_if<PlistDict>(&storage); }

    // In a dictionary, the value of `key`; nullptr for an absent key or when
    // this is no dictionary.
    const PlistValue* find(std::string_view key) const;

    bool operator==(const PlistValue&) const = default;

    Storage storage;
};

// What a property list may cost, far beyond what any bundle's or settings'
// list needs. A list beyond them is refused before libplist sees it: its
// binary reader recurses once per level (a few ten thousand levels overrun
// the main thread's stack) and expands an object that is referred to twice
// twice over (a list of a hundred bytes can stand for a billion values).
// Containers within containers:
inline constexpr size_t kMaximumPropertyListDepth = 128;
// Values, each use of a shared one in a binary list counted:
inline constexpr size_t kMaximumPropertyListValues = size_t(1) << 18;
// The size of a file that readPropertyListFile reads unless told otherwise:
inline constexpr uint64_t kMaximumPropertyListFileSize = uint64_t(16) << 20;

// Parses an XML or a binary property list. Anything malformed, truncated,
// larger than the format allows or beyond the limits above gives an empty
// optional; `problem`, when given, then says what is wrong, for a person:
// "it is not a property list", "it is nested deeper than 128 levels".
std::optional<PlistValue> parsePropertyList(const void* bytes, size_t length, std::string* problem = nullptr);

// Reads and parses a regular file of at most `maximumSize` bytes; a missing,
// unreadable, non-regular or larger file gives an empty optional, like
// malformed contents. `problem`, when given, then says what is wrong, for a
// person: "it does not exist", "it is larger than 1048576 bytes", "it is not
// a property list".
std::optional<PlistValue> readPropertyListFile(const std::filesystem::path& path, std::string* problem = nullptr,
                                               uint64_t maximumSize = kMaximumPropertyListFileSize);

// The value as an XML or a binary property list document.
std::string toXmlPropertyList(const PlistValue& value);
std::string toBinaryPropertyList(const PlistValue& value);

} // namespace vt
