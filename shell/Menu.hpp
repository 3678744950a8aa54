// The launcher's menu: what the status icon shows. Loaded from the bundle's
// Contents/Resources/MainMenu.plist, or the one-item default.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// A title with presentation attributes that travel with it unchanged.
struct AttributedTitle {
    std::string text;
    std::map<std::string, std::string> attributes;
};

struct Menu;

struct MenuItem {
    bool separator = false;
    std::string title;
    std::optional<AttributedTitle> attributedTitle;
    std::string action; // "quit", "hide", "activate" or empty
    std::shared_ptr<Menu> submenu;
};

struct Menu {
    std::vector<MenuItem> items;
};

struct PlistValue;

// What a bundle's menu file may hold; far beyond a real menu, and small
// enough that reading, exporting and showing it stay cheap.
inline constexpr uint64_t kMaximumMenuFileSize = uint64_t(1) << 20;
// Submenus within submenus, the top level counted as one.
inline constexpr size_t kMaximumMenuDepth = 16;
// Items at all levels together, separators included.
inline constexpr size_t kMaximumMenuItems = 4096;

// The menu of the bundle at `bundlePath`. Without a menu file it is the
// default: one item "Quit %@" with the action "quit". A file that cannot be
// read, is no array or goes beyond the limits above gives the default too,
// with one line on the platform log saying why.
Menu loadBundleMenu(const std::filesystem::path& bundlePath);
// The menu a parsed menu file describes: one item per dictionary in its
// array, anything else in it skipped; nothing when it is no array or goes
// beyond the limits above (`problem` then says which).
std::optional<Menu> menuFromPropertyList(const PlistValue& list, std::string* problem = nullptr);
Menu defaultMenu();

// Replaces every `pattern` in the titles of `menu`, at every depth, with
// `replacement`; an item's attributed title, when it has a text, stands for
// its plain title. Separators are left alone.
void replaceInMenuTitles(Menu& menu, std::string_view pattern, const std::string& replacement);

} // namespace vt
