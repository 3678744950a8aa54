#include "shell/Menu.hpp"

#include "base/VTLog.hpp"
#include "source/PropertyList.hpp"

namespace vt {

namespace {
    std::vector<MenuItem> itemsFrom(const PlistArray& array);

    std::optional<MenuItem> itemFrom(const PlistValue& value)
    {
        const PlistDict* dict = value.asDict();
        if (!dict)
            return std::nullopt;
        MenuItem item;
        if (const PlistValue* separator = value.find("separator"); separator && separator->asBool())
            item.separator = *separator->asBool();
        if (item.separator)
            return item;
        if (const PlistValue* title = value.find("title"); title && title->asString())
            item.title = *title->asString();
        // An attributed title: its text and, as strings, its attributes.
        if (const PlistValue* attributed = value.find("attributedTitle"); attributed && attributed->asDict()) {
            AttributedTitle title;
            for (const auto& [key, attribute] : *attributed->asDict()) {
                if (!attribute.asString())
                    continue;
                if (key == "text")
                    title.text = *attribute.asString();
                else
                    title.attributes[key] = *attribute.asString();
            }
            item.attributedTitle = std::move(title);
        }
        if (const PlistValue* action = value.find("action"); action && action->asString())
            item.action = *action->asString();
        if (const PlistValue* submenu = value.find("submenu"); submenu && submenu->asArray())
            item.submenu = std::make_shared<Menu>(Menu { itemsFrom(*submenu->asArray()) });
        return item;
    }

    std::vector<MenuItem> itemsFrom(const PlistArray& array)
    {
        std::vector<MenuItem> items;
        for (const auto& value : array) {
            if (auto item = itemFrom(value))
                items.push_back(std::move(*item));
        }
        return items;
    }
} // namespace

void replaceInMenuTitles(Menu& menu, std::string_view pattern, const std::string& replacement)
{
    auto replaceAll = [&](std::string& text) {
        for (size_t at = text.find(pattern); at != std::string::npos; at = text.find(pattern, at + replacement.size()))
            text.replace(at, pattern.size(), replacement);
    };
    for (auto& item : menu.items) {
        if (item.separator)
            continue;
        if (item.attributedTitle && !item.attributedTitle->text.empty())
            replaceAll(item.attributedTitle->text);
        else
            replaceAll(item.title);
        if (item.submenu)
            replaceInMenuTitles(*item.submenu, pattern, replacement);
    }
}

Menu defaultMenu()
{
    MenuItem quit;
    quit.title = "Quit %@";
    quit.action = "quit";
    return Menu { { quit } };
}

Menu loadBundleMenu(const std::filesystem::path& bundlePath)
{
    std::filesystem::path file = bundlePath / "Contents" / "Resources" / "MainMenu.plist";
    std::error_code error;
    if (!std::filesystem::exists(file, error))
        return defaultMenu();
    auto list = readPropertyListFile(file);
    std::optional<Menu> menu = list ? menuFromPropertyList(*list) : std::nullopt;
    if (!menu) {
        VTLog("the menu file %@ is not an array of items; using the default menu", file);
        return defaultMenu();
    }
    return std::move(*menu);
}

std::optional<Menu> menuFromPropertyList(const PlistValue& list)
{
    if (!list.asArray())
        return std::nullopt;
    return Menu { itemsFrom(*list.asArray()) };
}

} // namespace vt
