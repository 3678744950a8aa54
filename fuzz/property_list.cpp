// Property lists and the bundle menu read from one: parsePropertyList on
// the input as it stands (the input decides between XML and binary), then
// menuFromPropertyList on what was parsed and the title rewriting of the
// menu it gives.
//
// Checks: a parsed value written as a binary list and parsed again is the
// same value (where the value is one the writer can hold: text without
// NULs in valid UTF-8, no NaN, dates within 32-bit seconds and not in the
// second before the reference date); a menu exists exactly for an array, has one
// item per dictionary in it, separators carry nothing else, no submenu is
// deeper than the list, and after "%@" is replaced in the titles no shown
// title holds it.
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include <glib.h>

#include "fuzz/FuzzSupport.hpp"
#include "shell/Menu.hpp"
#include "source/PropertyList.hpp"

using namespace vt;

namespace {

bool writable(const std::string& text) { return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr); }

// Whether the binary writer can give `value` back as it is.
bool roundTrips(const PlistValue& value)
{
    if (const double* real = value.asReal())
        return !std::isnan(*real);
    // libplist holds a date's whole seconds in 32 bits, and loses the sign
    // of one within the second before the reference date.
    if (const PlistDate* date = value.asDate())
        return date->secondsSinceReferenceDate >= INT32_MIN && date->secondsSinceReferenceDate < INT32_MAX
            && !(date->secondsSinceReferenceDate > -1 && date->secondsSinceReferenceDate < 0);
    if (const std::string* text = value.asString())
        return writable(*text);
    if (const PlistArray* array = value.asArray()) {
        for (const PlistValue& item : *array)
            if (!roundTrips(item))
                return false;
    }
    if (const PlistDict* dict = value.asDict()) {
        for (const auto& [key, item] : *dict)
            if (!writable(key) || !roundTrips(item))
                return false;
    }
    return true;
}

// Equal, but for dates, which go through whole seconds and microseconds.
bool same(const PlistValue& a, const PlistValue& b)
{
    if (a.storage.index() != b.storage.index())
        return false;
    if (const PlistDate* date = a.asDate())
        return std::fabs(date->secondsSinceReferenceDate - b.asDate()->secondsSinceReferenceDate) <= 2e-6;
    if (const PlistArray* array = a.asArray()) {
        const PlistArray& other = *b.asArray();
        if (array->size() != other.size())
            return false;
        for (size_t i = 0; i < array->size(); ++i)
            if (!same((*array)[i], other[i]))
                return false;
        return true;
    }
    if (const PlistDict* dict = a.asDict()) {
        const PlistDict& other = *b.asDict();
        if (dict->size() != other.size())
            return false;
        for (auto i = dict->begin(), j = other.begin(); i != dict->end(); ++i, ++j)
            if (i->first != j->first || !same(i->second, j->second))
                return false;
        return true;
    }
    return a == b;
}

size_t depthOf(const PlistValue& value)
{
    size_t deepest = 0;
    if (const PlistArray* array = value.asArray())
        for (const PlistValue& item : *array)
            deepest = std::max(deepest, depthOf(item));
    if (const PlistDict* dict = value.asDict())
        for (const auto& [key, item] : *dict)
            deepest = std::max(deepest, depthOf(item));
    return deepest + 1;
}

size_t depthOf(const Menu& menu)
{
    size_t deepest = 0;
    for (const MenuItem& item : menu.items)
        if (item.submenu)
            deepest = std::max(deepest, depthOf(*item.submenu));
    return deepest + 1;
}

void checkItems(const Menu& menu)
{
    for (const MenuItem& item : menu.items) {
        if (item.separator)
            VT_FUZZ_CHECK(item.title.empty() && !item.attributedTitle && item.action.empty() && !item.submenu);
        if (item.submenu)
            checkItems(*item.submenu);
    }
}

// No title a person sees still holds the pattern.
void checkReplaced(const Menu& menu)
{
    for (const MenuItem& item : menu.items) {
        if (item.separator)
            continue;
        const bool attributed = item.attributedTitle && !item.attributedTitle->text.empty();
        VT_FUZZ_CHECK((attributed ? item.attributedTitle->text : item.title).find("%@") == std::string::npos);
        if (item.submenu)
            checkReplaced(*item.submenu);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::optional<PlistValue> value = parsePropertyList(data, size);
    if (!value)
        return 0;

    if (roundTrips(*value)) {
        std::string binary = toBinaryPropertyList(*value);
        std::optional<PlistValue> again = parsePropertyList(binary.data(), binary.size());
        VT_FUZZ_CHECK(again && same(*again, *value));
    }
    // Written as XML it must at least not break anything.
    (void)toXmlPropertyList(*value);

    std::optional<Menu> menu = menuFromPropertyList(*value);
    VT_FUZZ_CHECK(menu.has_value() == (value->asArray() != nullptr));
    if (!menu)
        return 0;
    size_t dictionaries = 0;
    for (const PlistValue& item : *value->asArray())
        dictionaries += item.asDict() != nullptr;
    VT_FUZZ_CHECK(menu->items.size() == dictionaries);
    VT_FUZZ_CHECK(depthOf(*menu) <= depthOf(*value));
    checkItems(*menu);
    replaceInMenuTitles(*menu, "%@", "Notepad");
    checkReplaced(*menu);
    // A replacement that holds the pattern itself is not searched again.
    replaceInMenuTitles(*menu, "e", "ee");
    return 0;
}
