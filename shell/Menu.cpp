#include "shell/Menu.hpp"

#include "base/PlatformLog.hpp"
#include "source/PropertyList.hpp"

namespace vt {

namespace {
    // Builds the menu from the file's items, within the limits on its depth
    // and its number of items; `problem` says which one it went beyond.
    class MenuReader {
    public:
        std::optional<std::vector<MenuItem>> itemsFrom(const PlistArray& array, size_t depth)
        {
            // The status item's menu and its exporter walk the menu
            // recursively too, on their threads.
            if (depth > kMaximumMenuDepth) {
                problem = "its submenus go deeper than " + std::to_string(kMaximumMenuDepth) + " levels";
                return std::nullopt;
            }
            std::vector<MenuItem> items;
            for (const auto& value : array) {
                if (m_items == kMaximumMenuItems) {
                    problem = "it holds more than " + std::to_string(kMaximumMenuItems) + " items";
                    return std::nullopt;
                }
                std::optional<MenuItem> item;
                if (!itemFrom(value, depth, item))
                    return std::nullopt;
                if (item) {
                    ++m_items;
                    items.push_back(std::move(*item));
                }
            }
            return items;
        }

        std::string problem;

    private:
        // False when a limit is reached; `item` stays empty for a value
        // that is no item.
        bool itemFrom(const PlistValue& value, size_t depth, std::optional<MenuItem>& result)
        {
            const PlistDict* dict = value.asDict();
            if (!dict)
                return true;
            MenuItem item;
            if (const PlistValue* separator = value.find("separator"); separator && separator->asBool())
                item.separator = *separator->asBool();
            if (item.separator) {
                result = std::move(item);
                return true;
            }
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
            if (const PlistValue* submenu = value.find("submenu"); submenu && submenu->asArray()) {
                auto items = itemsFrom(*submenu->asArray(), depth + 1);
                if (!items)
                    return false;
                item.submenu = std::make_shared<Menu>(Menu { std::move(*items) });
            }
            result = std::move(item);
            return true;
        }

        size_t m_items = 0;
    };
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
    // One line, whatever is wrong: the launcher works on with its own menu.
    std::string problem;
    auto list = readPropertyListFile(file, &problem, kMaximumMenuFileSize);
    std::optional<Menu> menu = list ? menuFromPropertyList(*list, &problem) : std::nullopt;
    if (!menu) {
        platformLog("The menu file %@ is not used: %s; the launcher shows its default menu.", file, problem);
        return defaultMenu();
    }
    return std::move(*menu);
}

std::optional<Menu> menuFromPropertyList(const PlistValue& list, std::string* problem)
{
    if (!list.asArray()) {
        if (problem)
            *problem = "it is not an array of items";
        return std::nullopt;
    }
    MenuReader reader;
    auto items = reader.itemsFrom(*list.asArray(), 1);
    if (!items) {
        if (problem)
            *problem = reader.problem;
        return std::nullopt;
    }
    return Menu { std::move(*items) };
}

} // namespace vt
